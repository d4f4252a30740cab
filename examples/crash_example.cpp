// A small mesh search that shows the process services: a timer around the
// work, an octree of element boxes queried along a segment, and, with
// --crash, a fault deep in the element lookup that the crash reporter writes
// up as <program>.dmp in the current directory (when ZEM_PATH is set).
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "ZMXUTI_CoreUtils.h"

namespace {

struct Element {
  float min[3];
  float max[3];
};

struct Mesh {
  std::vector<Element> elements;
  // What a corrupted connectivity table would hand out: an address in the unmapped first page.
  const Element* damaged = reinterpret_cast<const Element*>(std::uintptr_t{0x40});
};

void ElementBox(void* user, unsigned int item, float* const min, float* const max) {
  const Element& e = static_cast<const Mesh*>(user)->elements[item];
  std::memcpy(min, e.min, sizeof e.min);
  std::memcpy(max, e.max, sizeof e.max);
}

// A grid of unit cubes, 20 x 20 x 4.
Mesh BuildMesh() {
  Mesh mesh;
  for (int k = 0; k < 4; ++k)
    for (int j = 0; j < 20; ++j)
      for (int i = 0; i < 20; ++i)
        mesh.elements.push_back({{float(i), float(j), float(k)}, {float(i + 1), float(j + 1), float(k + 1)}});
  return mesh;
}

__attribute__((noinline)) float ElementVolume(const Element* e) {
  return (e->max[0] - e->min[0]) * (e->max[1] - e->min[1]) * (e->max[2] - e->min[2]);
}

__attribute__((noinline)) float VolumeAlongLine(const Mesh& mesh, const omi_Octree& tree, bool crash) {
  float start[3] = {0.5f, 0.5f, 0.5f};
  float end[3] = {19.5f, 19.5f, 3.5f};
  omi_OctreeLineTrav walk;
  float volume = 0.0f;
  if (!walk.Init(&tree, start, end, 0.01f)) return volume;
  while (const omi_OctreeLeaf* leaf = walk.NextCell()) {
    for (unsigned int i = 0; i < leaf->Count(); ++i)
      volume += ElementVolume(crash ? mesh.damaged : &mesh.elements[leaf->ItemAt(i)]);
  }
  return volume;
}

}  // namespace

int main(int argc, char** argv) {
  const bool crash = argc > 1 && std::strcmp(argv[1], "--crash") == 0;
  int depth = 0;
  UTI_CoreUtils_initialize(depth);
  {
    omi_Timer timer;
    timer.Start();
    Mesh mesh = BuildMesh();
    omi_Octree tree(omi_OctVector(10, 10, 2), omi_OctVector(10, 10, 2), 0.1f, ElementBox, &mesh);
    for (unsigned int i = 0; i < mesh.elements.size(); ++i) {
      const Element& e = mesh.elements[i];
      tree.Insert(i, omi_OctVector(e.min[0], e.min[1], e.min[2]), omi_OctVector(e.max[0], e.max[1], e.max[2]));
    }
    const float volume = VolumeAlongLine(mesh, tree, crash);
    timer.Stop();
    std::printf("%u elements, %u leaves; elements near the diagonal hold %.0f unit cubes\n",
                static_cast<unsigned int>(mesh.elements.size()), tree.LeafCount(), volume);
    std::printf("search took %.3f ms of real time\n", timer.GetElapsedTime() * 1e3);
  }
  UTI_CoreUtils_finalize(depth);
  return 0;
}
