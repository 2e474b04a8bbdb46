// Symbol visibility: everything is hidden unless the export list names it.
#ifndef TAV_VISIBILITY_H
#define TAV_VISIBILITY_H
#define TAV_INTERNAL __attribute__((visibility("hidden")))
#define TAV_EXPORT __attribute__((visibility("default")))
#endif
