// A select() descriptor set spanning 65536 descriptors, so that sockets past
// the platform's FD_SETSIZE can still be waited on.  A descriptor beyond the
// set's end is refused rather than written out of bounds.
#ifndef TAV_FBER_FDSET_H
#define TAV_FBER_FDSET_H

#include <sys/select.h>

//
// Only the words up to the highest descriptor added are written: select
// reads no further than that (its first argument), and clearing all 8 KB
// cost more than the rest of a search's client work around the call.
struct FberFdSet {
  static constexpr int kSpan = 65536;
  static constexpr int kWordBits = 8 * sizeof(unsigned long);
  unsigned long bits[kSpan / kWordBits];
  int cleared = 0;  // words of `bits` that are defined

  bool add(int fd) {
    if (fd < 0 || fd >= kSpan) return false;
    const int word = fd / kWordBits;
    for (; cleared <= word; ++cleared) bits[cleared] = 0;
    bits[word] |= 1ul << (fd % kWordBits);
    return true;
  }
  fd_set *get() { return reinterpret_cast<fd_set *>(bits); }
};

#endif
