#include "broker/ConnectionTest.h"

#include "broker/OrbInternals.h"

namespace Broker {
namespace {

// The ORB keeps its question for an object's location to itself.
struct Locator : omniObjRef {
  static void Ask(omniObjRef* reference) { (reference->*(&Locator::_locateRequest))(); }
};

}  // namespace

bool HasValidConnection(CORBA::Object_ptr object) {
  if (CORBA::is_nil(object)) return false;
  try {
    Locator::Ask(object->_PR_getobj());
    return true;
  } catch (const CORBA::OBJECT_NOT_EXIST&) {
    return false;
  }
}

}  // namespace Broker
