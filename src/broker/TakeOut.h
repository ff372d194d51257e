#pragma once

#include <omniORB4/CORBA.h>
#include <omniORB4/omniORB.h>

#include <new>
#include <stdexcept>
#include <utility>

namespace Broker {

// Whether the ORB could do it. Whatever else it may throw is a fault of what it was given; too
// little memory is std::bad_alloc.
template <class Function>
bool Succeeds(Function&& function) {
  try {
    std::forward<Function>(function)();
    return true;
  } catch (const CORBA::NO_MEMORY&) {
    throw std::bad_alloc();
  } catch (const CORBA::Exception&) {
  } catch (const omniORB::fatalException&) {  // not a std::exception
  } catch (const std::length_error&) {
  }
  return false;
}

// Takes the value out of an Any that a peer made; what is taken out stays the Any's. False if the
// Any holds another type, or octets that are no such value: the ORB looks into them only here.
template <class Value>
bool TakeOut(const CORBA::Any& any, Value& value) {
  bool isThere = false;
  return Succeeds([&] { isThere = any >>= value; }) && isThere;
}

}  // namespace Broker
