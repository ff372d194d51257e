#pragma once

#include <omniORB4/CORBA.h>

#include <string>
#include <string_view>

// Any to hexadecimal text and back: the type code and the value in CDR, little-endian, GIOP 1.2,
// two lower-case digits a byte. Needs an ORB in the process. Too little memory is std::bad_alloc.
// Threads: any.
namespace Encoding {

// Throws std::runtime_error "Encoding::EncodeAny failed to insert into TAO_OutputCDR".
std::string EncodeAny(const CORBA::Any& any);

// A last odd digit is ignored; characters that are no digits give wrong bytes. Throws
// std::runtime_error "Encoding::DecodeAny failed to extract from TAO_InputCDR", whatever is wrong
// with the text.
void DecodeAny(const std::string& text, CORBA::Any& any);

// The same for a string, without the detour by way of an Any, which takes most of the time: what
// EncodeAny gives for an Any with it. It ends at its first zero.
std::string EncodeString(const std::string& text);

// The string in what DecodeAny would give; empty if that is of another type. Throws as DecodeAny
// does, also for a value that can't be taken out of what DecodeAny takes.
std::string DecodeString(std::string_view text);

// Brings the codec to life in a process that has no ORB of its own (tools, tests, fuzz targets).
void InitializeCodec();

}  // namespace Encoding
