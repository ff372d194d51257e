#pragma once

// The ORB's internal headers, in the one order in which they compile. For the sources of this
// folder alone.
#include <omniORB4/CORBA.h>

#include <omniORB4/giopEndpoint.h>

#include <omniORB4/internal/giopServer.h>

#include <omniORB4/internal/giopStrand.h>

#include <omniORB4/internal/giopStream.h>

#include <omniORB4/internal/giopRope.h>

#include <omniORB4/internal/GIOP_C.h>
#include <omniORB4/internal/GIOP_S.h>

#include <omniORB4/internal/giopWorker.h>

#include <omniORB4/internal/objectAdapter.h>

#include <omniORB4/internal/orbParameters.h>

#include <omniORB4/internal/tcpSocket.h>

#include <omniORB4/sslContext.h>

#include <omniORB4/sslConnection.h>

#include <omniORB4/omniInterceptors.h>
