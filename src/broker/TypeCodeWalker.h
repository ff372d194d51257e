#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Broker {

// Reads the bytes of one type code, as they stand in CDR, without building anything, and decides
// whether the ORB's own reader can be trusted with them. See TypeCodeGuard for the limits.
// Threads: one at a time; one object serves one type code.
class TypeCodeWalker {
 public:
  // What is wrong with a type code is of no use to its sender's peer: there is one refusal.
  struct Refused {};

  // Whether what follows the kind is an encapsulation. True of no kind that Check refuses.
  static bool IsComplex(std::uint32_t kind);

  // The bytes begin with the kind, in the byte order of this machine; they stay the caller's.
  TypeCodeWalker(const unsigned char* bytes, std::size_t size);

  // Throws Refused.
  void Check();

  // Zeroes the padding of a type code that the ORB has written, and replaces the ORB's private
  // mark for a union without a default (-2) by the common one (-1). Throws Refused.
  static void Scrub(unsigned char* bytes, std::size_t size);

 private:
  // What a type code means for whoever reads a value of it.
  struct Shape {
    std::uint32_t kind = 0;    // of the type behind all aliases
    std::uint64_t leaves = 1;  // simple values that it is made of
    bool simple = true;        // fixed size, copied as it stands
    bool empty = false;        // takes no bytes: any number of them would fit into a message
  };
  struct Node {
    std::size_t offset;
    Shape shape;
    bool finished;
  };
  // A part of the bytes with its own byte order and its own origin for alignment.
  struct Cursor {
    std::size_t position;
    std::size_t end;
    std::size_t origin;
    bool swapped;
  };

  Shape ReadTypeCode(Cursor& cursor, unsigned depth);
  Shape ReadIndirection(Cursor& cursor, std::size_t typeCodeOffset);
  Shape ReadComplex(std::uint32_t kind, Cursor& cursor, unsigned depth);
  Shape ReadSequence(Cursor& body, unsigned depth);
  Shape ReadArray(Cursor& body, unsigned depth);
  Shape ReadStruct(Cursor& body, unsigned depth);
  Shape ReadUnion(Cursor& body, unsigned depth);
  Shape ReadEnum(Cursor& body);
  Shape ReadAlias(Cursor& body, unsigned depth);

  void Align(Cursor& cursor, std::size_t alignment);
  void Skip(Cursor& cursor, std::size_t size) const;
  std::uint32_t ReadULong(Cursor& cursor);
  void SkipText(Cursor& cursor);
  void SkipLabel(Cursor& cursor, std::size_t size, bool isBoolean);

  const unsigned char* bytes_;
  std::size_t size_;
  unsigned char* writable_ = nullptr;  // the same bytes while scrubbing
  unsigned nodeCount_ = 0;
  std::uint64_t leavesInAll_ = 0;
  std::vector<Node> nodes_;  // by rising offset, for indirections
};

}  // namespace Broker
