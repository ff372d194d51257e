#include "routing/NameList.h"

#include <memory>

namespace MessageRouter {

// Handed over instead of copied: a copy that finds no memory halfway would lose what it has.
CORBA::Any AsNameList(const std::vector<const char*>& names) {
  auto list = std::make_unique<BrelixMessaging::String_seq>();
  list->length(static_cast<CORBA::ULong>(names.size()));
  for (CORBA::ULong i = 0; i < list->length(); ++i) (*list)[i] = names[i];
  CORBA::Any any;
  any <<= list.release();
  return any;
}

}  // namespace MessageRouter
