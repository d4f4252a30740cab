// Fresh-process scenarios for the container dumps, so that tests can read what
// they print on the standard streams byte for byte, and for the containers' aborts.
#include <cstdio>
#include <cstring>

#include "ZMXUTI_CoreUtils.h"
#include "probes/probe_main.h"

namespace {

void ListOfTen() {
  omi_BlkBitVect v;
  for (unsigned int b = 0; b < 10; ++b) v.SetBit(b);
  v.DumpList();
}

void EmptyList() {
  omi_BlkBitVect v;
  v.SetBit(7);
  v.UnsetBit(7);  // a page without bits is still an empty list
  v.DumpList();
}

void ListOfSixteenAndLarge() {
  omi_BlkBitVect v;
  for (unsigned int b = 100; b < 115; ++b) v.SetBit(b);
  v.SetBit(123456789);
  v.DumpList();
}

void ListOfHighBits() {
  omi_BlkBitVect v;
  v.SetBit(0xFFFFFFFFu);  // printed with "%8d", so as a negative number
  v.DumpList();
}

void BlockedArrayPages() {
  omi_BlockedArray<int> a(0, 4);  // pages of 16
  a.SetCell(1, 0x01020304);
  a.SetCell(40, -1);
  a.Dump();
}

// Page shift 0 and increment 3: index 0xFFFFFFFF is page 0xFFFFFFFF, whose
// directory would need 2^32 + 2 slots.
void DirectoryBeyondThirtyTwoBits() {
  omi_BlockedArray<int> a(3, 0);
  a.SetCell(0xFFFFFFFFu, 1);
  std::printf("not reached\n");
}

// Root branch with its eight leaves: one item in the lower corner, one in the
// upper corner, one across the centre in all eight.
void OctreeDumps() {
  omi_Octree tree(omi_OctVector(0, 0, 0), omi_OctVector(64, 64, 64), 1.0f, nullptr, nullptr);
  tree.Insert(0, omi_OctVector(-10, -10, -10), omi_OctVector(-5, -5, -5));
  tree.Insert(1, omi_OctVector(5, 5, 5), omi_OctVector(10, 10, 10));
  tree.Insert(2, omi_OctVector(-1, -1, -1), omi_OctVector(1, 1, 1));
  std::printf("items %u\n", tree.Dump());
  const float upper[3] = {5, 5, 5};
  tree.FindCell(upper)->Dump();  // a leaf on its own prints its own line
  tree.Root()->Dump();           // counts leaves without printing; the tree's dump adds them
  tree.Dump();
  omi_OctreeMemPtr words = tree.MemAlloc(2000);
  words.Release();  // the emptied 4,000-word block waits on the freed list
  tree.Dump();
}

void OctreeItemBeyondCount() {
  omi_Octree tree(omi_OctVector(0, 0, 0), omi_OctVector(1, 1, 1), 0.1f, nullptr, nullptr);
  tree.Insert(9, omi_OctVector(0, 0, 0), omi_OctVector(0, 0, 0));
  const float origin[3] = {0, 0, 0};
  std::printf("%u\n", tree.FindCell(origin)->ItemAt(1));
}

void OctreeRequestTooLarge() {
  omi_Octree tree(omi_OctVector(0, 0, 0), omi_OctVector(1, 1, 1), 0.1f, nullptr, nullptr);
  tree.MemAlloc(0x80000000u);
  std::printf("not reached\n");
}

}  // namespace

const zmx_probe::Scenario kScenarios[] = {
    {"list_of_ten", ListOfTen},
    {"empty_list", EmptyList},
    {"list_of_sixteen_and_large", ListOfSixteenAndLarge},
    {"list_of_high_bits", ListOfHighBits},
    {"blocked_array_pages", BlockedArrayPages},
    {"directory_beyond_32_bits", DirectoryBeyondThirtyTwoBits},
    {"octree_dumps", OctreeDumps},
    {"octree_item_beyond_count", OctreeItemBeyondCount},
    {"octree_request_too_large", OctreeRequestTooLarge},
};

int main(int argc, char** argv) {
  int depth = 0;
  UTI_CoreUtils_initialize(depth);
  return zmx_probe::Dispatch(argc, argv, kScenarios);
}
