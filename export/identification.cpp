// Identification data carried in the shared object for people and tools that
// inspect the file (what(1)-style "@(#)" lines); the library never reads them.
#include "tavldap.h"
#include "tav-build-info.h"
#include "tav-visibility.h"

extern "C" {
extern const char tavldap_SCCSInfo[] =
    "@(#)FileDescription: LDAP client library for LDAP versions 2 and 3\n"
    "@(#)FileVersion: " TAV_VERSION_STRING "\n"
    "@(#)ProductVersion: " TAV_VERSION_STRING "\n"
    "@(#)InternalName: libtav8ldap_64\n"
    "@(#)OriginalFilename: libtav8ldap_64.so\n"
    "@(#)ProductName: libtav8ldap_64 LDAP client\n"
    "@(#)BuildDate: " TAV_BUILD_DATE "\n"
    "@(#)BuildId: " TAV_BUILD_ID "\n";

extern const char tavldap_Copyright[] =
    "libtav8ldap_64 LDAP client library. Copyright (c) 2026 the libtav8ldap_64 developers.";
}
