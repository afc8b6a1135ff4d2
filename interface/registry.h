// Internal access to the instance registry.
#pragma once

class VantrelClass;

// The instance for a handle, or null. Leaves a null entry for an unknown
// handle (the map's index operator); may throw std::bad_alloc.
VantrelClass* lookupInstance(int handle);
