#pragma once

#include <cstddef>
#include <cstdint>

// The part of the stand-in that gives out memory shared with the kernel, and the system's limit for
// it.  VEXA_TEST_SHARING in the environment says how it begins: "none", "half" or all.  Memory that
// is given back through a handle that is not open ends the program.
namespace fake {

enum class Sharing {
    None, // every request is refused
    Half, // every second one
    All,
};
void shareMemory(Sharing sharing);
void shareAsAsked(); // in the environment
// The text in the limit's file; 256 at first.
void limitTransfers(const char *mebibytes);
// How much each of so many other programs shares, and how much this one has told them, in MiB.
void othersShare(int mebibytes, int programs = 1);
int toldToOthers();
// Descriptors of the limit's file.
int openLimitFiles();

bool isShared(const uint8_t *memory);
// That are mapped.
size_t sharedBlocks();

} // namespace fake
