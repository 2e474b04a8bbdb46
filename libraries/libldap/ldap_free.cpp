// Releasing what the library hands to callers.
#include <cstdlib>

#include "ldap-int.h"

extern "C" {
void ldap_memfree(void *p) {
  if (p != nullptr) free(p);
}

// The attribute iteration state is a single allocation, so freeing the block
// releases all of it.
void ldap_ber_free(BerElement *ber) {
  if (ber != nullptr) free(ber);
}
}
