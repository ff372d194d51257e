#pragma once

// Every number that bounds what peers can make the broker spend. docs/operating.md tells an
// administrator what they mean together.
namespace Broker::Limits {

// -- Threads --------------------------------------------------------------------------------------

// So many incoming connections have a thread each, which is the fastest way to serve them; above
// it new ones share the pool, until there are fewer than the lower number again.
inline constexpr unsigned kThreadPerConnectionUpper = 500;
inline constexpr unsigned kThreadPerConnectionLower = 400;

// Threads of the pool, made as they are needed. Each handshake and each stranger can hold one, so
// that there must be more of them than of both together, or peers would find no thread.
inline constexpr unsigned kPoolThreads = 400;

// Requests of one connection that are served at once; the ORB's own clients send one at a time.
inline constexpr unsigned kThreadsPerConnection = 8;

// The broker never has more threads than this: those above, and a few that accept, watch and purge.
inline constexpr unsigned kMaxThreads = kThreadPerConnectionUpper + kPoolThreads + 50;

// -- Connections whose other end is not known -----------------------------------------------------

// Accepted connections that have not finished their handshake. Above it accepting waits a little
// for handshakes to finish, and then the oldest of the address that has the most of them goes.
inline constexpr unsigned kMaxHandshakes = 192;
// A burst beyond that: the oldest goes at once, however young it is.
inline constexpr unsigned kMostHandshakes = 288;
inline constexpr unsigned kAcceptPauseMilliseconds = 10;
// So long a handshake is let alone while there are too many: a peer that has sent nothing yet, and
// one that has begun and may just be waiting for a processor.
inline constexpr unsigned kSilentGraceMilliseconds = 500;
inline constexpr unsigned kHandshakeGraceMilliseconds = 2000;
// No handshake takes longer than this.
inline constexpr unsigned kHandshakeSeconds = 30;

// Connections that showed no certificate: those who come for their first one. Above it the least
// recently used of the address that has the most of them goes.
inline constexpr unsigned kMaxStrangers = 64;
// One that is idle for so long goes.
inline constexpr unsigned kStrangerIdleSeconds = 120;
// What a stranger may send without completing a request.
inline constexpr unsigned kStrangerMessageBytes = 1024 * 1024;

static_assert(kMostHandshakes + kMaxStrangers < kPoolThreads);

// -- Messages -------------------------------------------------------------------------------------

// The largest message, in and out.
inline constexpr unsigned kMaxMessageBytes = 104857600;
// An envelope that could come in and not go out would stop its link for ever, and it grows on its
// way: each router puts its name into the stamps and may put it in front of the originator. So what
// a router takes grows with the stamps, by no less than that, and what one router has taken the
// next one takes too. What begins here, a client's message or the router's own, leaves room
// besides.
inline constexpr unsigned kMaxOwnEnvelopeBytes = 64 * 1024 * 1024;
inline constexpr unsigned kMaxRouterEnvelopeBytes = 96 * 1024 * 1024;
inline constexpr unsigned kHopBytes = 1024;  // for each stamp
inline constexpr unsigned kMaxGrownHops = 3072;
inline constexpr unsigned kRequestBytes = 64 * 1024;  // what stands around an envelope, and more
static_assert(kMaxOwnEnvelopeBytes < kMaxRouterEnvelopeBytes);
static_assert(kMaxRouterEnvelopeBytes + kHopBytes * kMaxGrownHops + kRequestBytes <
              kMaxMessageBytes);
// What a peer may send without completing a request: parts of many messages can be mixed.
inline constexpr unsigned long kPeerMessageBytes = 2UL * kMaxMessageBytes;

// A connection that is in the middle of a message for so long, a request that comes or a reply that
// goes, is shut, unless it has a certificate and still makes progress: at least so many bytes a
// second since the message began, and some within the time.
inline constexpr unsigned kMessageSeconds = 30;
inline constexpr unsigned kMinBytesPerSecond = 64 * 1024;

// When so many pool threads are held by half messages, those that wait longer than the short time
// go; at twice the number, all of them.
inline constexpr unsigned kPoolScarce = 100;
inline constexpr unsigned kScarceMessageMilliseconds = 1000;

// -- Time -----------------------------------------------------------------------------------------

// Connecting: TCP and TLS together. Calls have no limit.
inline constexpr unsigned kConnectSeconds = 30;
// How long the end of an ORB waits, at each of its steps, for threads that are still in a call.
// What has not ended by then is left behind.
inline constexpr unsigned kDestroySeconds = 2;
// How often connections are looked at.
inline constexpr unsigned kScanMilliseconds = 250;
// The ORB's own scan, which carries out what the purge has decided.
inline constexpr unsigned kOrbScanSeconds = 1;
// The ORB closes connections that are idle for so long; the purge acts by number instead.
inline constexpr unsigned kOrbIdleSeconds = 24 * 60 * 60;

}  // namespace Broker::Limits
