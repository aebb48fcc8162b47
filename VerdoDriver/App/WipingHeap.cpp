// What this program's C++ gives back is overwritten: tokens and keys pass through strings of many
// makers on their way from the keyring to the wire, and the app goes on for weeks after a person
// had them forgotten. Not part of builds with sanitizers, which have operators of their own.
#include "VerdoDriverCore/System/WipedMemory.h"

#include <new>

// The other forms lead here, but for those of types with an alignment beyond malloc's.
void operator delete(void* memory) noexcept { verdo::wipeAndFree(memory); }
void operator delete(void* memory, std::size_t) noexcept { verdo::wipeAndFree(memory); }
