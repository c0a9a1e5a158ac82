// Registers the plugin's filter classes with the host's filter factory when
// the library is loaded. One block per class, each in this order: parse the
// type GUID, build the class information, register with the creator.
//
// Classes are added here as they are implemented.

#include <KEL/FilterFactory.h>
