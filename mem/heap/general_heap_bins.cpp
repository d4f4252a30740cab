// The general heap's tree bins (bitwise tries of free chunks by size), the
// designated victim, and best-fit searches for small and large requests.
#include "mem/heap/internal/general_heap_state.h"

namespace zmx {
namespace mem_internal {
namespace heap {

void Heap::InsertLarge(TreeChunk* x, size_t s) {
  const unsigned i = TreeIndex(s);
  TreeChunk** root = &treeBins[i];
  x->index = i;
  x->child[0] = x->child[1] = nullptr;
  if ((treeMap & IndexBit(i)) == 0) {
    treeMap |= IndexBit(i);
    *root = x;
    x->parent = nullptr;
    x->inTree = 1;
    x->fd = x->bk = x;
    return;
  }
  TreeChunk* t = *root;
  size_t k = s << TreeLeftShift(i);
  for (;;) {
    if (ChunkSize(t) == s) {
      // Same size as a trie node: join its ring, outside the trie.
      TreeChunk* f = t->fd;
      Require(f->bk == t, "broken tree-bin ring");
      t->fd = f->bk = x;
      x->fd = f;
      x->bk = t;
      x->parent = nullptr;
      x->inTree = 0;
      return;
    }
    TreeChunk** c = &t->child[(k >> 63) & 1];
    k <<= 1;
    if (*c == nullptr) {
      *c = x;
      x->parent = t;
      x->inTree = 1;
      x->fd = x->bk = x;
      return;
    }
    t = *c;
  }
}

void Heap::UnlinkLarge(TreeChunk* x) {
  TreeChunk* r;
  if (x->bk != x) {
    // A ring neighbour of the same size takes x's place.
    TreeChunk* f = x->fd;
    r = x->bk;
    Require(f->bk == x && r->fd == x, "broken tree-bin ring");
    f->bk = r;
    r->fd = f;
  } else {
    // The deepest rightmost leaf below x takes its place.
    TreeChunk** rp = &x->child[1];
    r = *rp;
    if (r == nullptr) {
      rp = &x->child[0];
      r = *rp;
    }
    if (r != nullptr) {
      for (;;) {
        TreeChunk** cp = &r->child[1];
        if (*cp == nullptr) cp = &r->child[0];
        if (*cp == nullptr) break;
        rp = cp;
        r = *cp;
      }
      *rp = nullptr;
    }
  }
  if (!x->inTree) return;  // a ring member: nothing in the trie changes
  TreeChunk* xp = x->parent;
  TreeChunk** root = &treeBins[x->index];
  if (*root == x) {
    *root = r;
    if (r == nullptr) treeMap &= ~IndexBit(x->index);
  } else if (xp->child[0] == x) {
    xp->child[0] = r;
  } else {
    xp->child[1] = r;
  }
  if (r != nullptr) {
    r->parent = xp;
    r->inTree = 1;
    for (int d = 0; d < 2; ++d) {
      r->child[d] = x->child[d];
      if (r->child[d] != nullptr) r->child[d]->parent = r;
    }
  }
}

namespace {

// Makes t the candidate v when it leaves a smaller remainder than rsize; a
// conditional move, not a branch.
inline void KeepCloser(TreeChunk* t, size_t nb, TreeChunk*& v, size_t& rsize) {
  const size_t trem = ChunkSize(t) - nb;
  const bool closer = trem < rsize;
  v = closer ? t : v;
  rsize = closer ? trem : rsize;
}

}  // namespace

__attribute__((always_inline)) inline Chunk* Heap::CarveTreeChunk(TreeChunk* v, size_t nb, size_t rsize) {
  Require(OkAddress(v), "tree chunk outside the heap");
  Chunk* p = AsChunk(v);
  UnlinkLarge(v);
  if (rsize < kMinChunk) {
    SetInuseAndPinuse(p, rsize + nb);
    return nullptr;
  }
  Chunk* r = ChunkAt(p, nb);
  SetSizeAndPinuseOfInuseChunk(p, nb);
  SetSizeAndPinuseOfFreeChunk(r, rsize);
  return r;
}

// A small request that no small bin can serve: the smallest tree chunk, with
// the remainder becoming the designated victim.
void* Heap::TreeMallocSmall(size_t nb) {
  TreeChunk* t = treeBins[LowestBitIndex(treeMap)];
  TreeChunk* v = t;
  size_t rsize = ChunkSize(t) - nb;
  while ((t = LeftmostChild(t)) != nullptr) {
    KeepCloser(t, nb, v, rsize);
  }
  if (Chunk* r = CarveTreeChunk(v, nb, rsize)) ReplaceDv(r, rsize);
  return ToMem(AsChunk(v));
}

// Best fit for a large request: the closest chunk of its own bin, else the
// smallest of the next non-empty bin; used only when it beats the victim.
// The descent picks its candidates with conditional moves: which way a size
// bit points is as good as random, so branches on it would mostly mispredict.
void* Heap::TreeMallocLarge(size_t nb) {
  TreeChunk* v = nullptr;
  size_t rsize = 0 - nb;  // "no candidate": larger than any remainder
  const unsigned idx = TreeIndex(nb);
  TreeChunk* t = treeBins[idx];
  if (t != nullptr) {
    size_t sizeBits = nb << TreeLeftShift(idx);
    TreeChunk* rst = nullptr;  // deepest untaken right subtree
    for (;;) {
      KeepCloser(t, nb, v, rsize);
      if (ZMX_UNLIKELY(rsize == 0)) break;  // an exact fit ends the search
      TreeChunk* rt = t->child[1];
      t = t->child[(sizeBits >> 63) & 1];
      const bool untaken = (rt != nullptr) & (rt != t);
      rst = untaken ? rt : rst;
      if (t == nullptr) {
        t = rst;  // everything there is larger than nb
        break;
      }
      sizeBits <<= 1;
    }
    if (rsize == 0) t = nullptr;
  }
  if (t == nullptr && v == nullptr) {
    const std::uint32_t leftBits = LeftBits(IndexBit(idx)) & treeMap;
    if (leftBits != 0) t = treeBins[LowestBitIndex(leftBits)];
  }
  while (t != nullptr) {
    KeepCloser(t, nb, v, rsize);
    t = LeftmostChild(t);
  }
  if (v == nullptr || rsize >= dvSize - nb) return nullptr;
  if (Chunk* r = CarveTreeChunk(v, nb, rsize)) InsertChunk(r, rsize);
  return ToMem(AsChunk(v));
}

}  // namespace heap
}  // namespace mem_internal
}  // namespace zmx
