#include "routing/NameList.h"

namespace MessageRouter {

CORBA::Any AsNameList(const std::vector<const char*>& names) {
  BrelixMessaging::String_seq list;
  list.length(static_cast<CORBA::ULong>(names.size()));
  for (CORBA::ULong i = 0; i < list.length(); ++i) list[i] = names[i];
  CORBA::Any any;
  any <<= list;
  return any;
}

}  // namespace MessageRouter
