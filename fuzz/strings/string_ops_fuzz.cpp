// libFuzzer target for the copy-on-write strings: the input is a program of
// string operations on four handles that share copies, each mirrored on a
// std::string model; any difference in text, length, sharing or reference
// count stops the run. Texts may hold any byte, NUL included.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ZMXUTI_CoreUtils.h"
#include "tests/strings/test_string.h"

namespace {

// The library comes up before anything of the program allocates.
ZMXUTI_EARLY_START_UP;

[[noreturn]] void Mismatch(const char* what, int step) {
  std::fprintf(stderr, "string fuzz: %s differs at step %d\n", what, step);
  std::abort();
}

// Reads the fuzz input as bytes, numbers and texts; zeros once exhausted.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}
  bool More() const { return m_pos < m_size; }
  int Byte() { return m_pos < m_size ? m_data[m_pos++] : 0; }
  int Upto(int n) { return n <= 0 ? 0 : (Byte() | (Byte() << 8)) % (n + 1); }
  std::string Text() {
    int n = Byte();
    if (n >= 250) n = 240 + Byte();  // now and then across the inline limit
    std::string s;
    while (n-- > 0 && More()) s += static_cast<char>(Byte());
    return s;
  }

 private:
  const std::uint8_t* m_data;
  std::size_t m_size;
  std::size_t m_pos = 0;
};

constexpr int kHandles = 4;
constexpr std::size_t kMaxLength = 4096;

std::string CPrefix(const std::string& s) { return std::string(s.c_str()); }

bool InSet(const std::string& set, char c) { return c != '\0' && CPrefix(set).find(c) != std::string::npos; }

struct Pool {
  TestString h[kHandles];
  std::string m[kHandles];
};

// Runs one operation on handle i and its model.
void Step(Pool& p, int i, Input& in) {
  TestString& h = p.h[i];
  std::string& m = p.m[i];
  const int length = static_cast<int>(m.size());
  switch (in.Byte() % 16) {
    case 0: {
      const int j = in.Byte() % kHandles;
      h = p.h[j];
      m = p.m[j];
      break;
    }
    case 1: {
      const std::string t = in.Text();
      h = t.c_str();
      m = CPrefix(t);
      break;
    }
    case 2: {
      const std::string t = in.Text();
      const int from = in.Upto(static_cast<int>(t.size()) + 1);
      const int count = in.Upto(static_cast<int>(t.size()) + 1);
      h.append(t.data(), static_cast<int>(t.size()), from, count);
      if (from < static_cast<int>(t.size())) m += t.substr(static_cast<std::size_t>(from), static_cast<std::size_t>(count));
      break;
    }
    case 3: {
      const std::string t = in.Text();
      const int pos = in.Upto(length);
      h.insert(pos, t.data(), static_cast<int>(t.size()), 0, atr_StringBase::kAll);
      m.insert(static_cast<std::size_t>(pos), t);
      break;
    }
    case 4: {
      const std::string t = in.Text();
      const int pos = in.Upto(length);
      const int count = in.Upto(length - pos + 1);
      h.replace(pos, count, t.data(), static_cast<int>(t.size()), 0, atr_StringBase::kAll);
      m.replace(static_cast<std::size_t>(pos), static_cast<std::size_t>(count), t);
      break;
    }
    case 5: {
      const int j = in.Byte() % kHandles;
      const int pos = in.Upto(length);
      const int count = in.Upto(length - pos + 1);
      const std::string piece = p.m[j];
      h.Replace(pos, count, p.h[j]);
      m.replace(static_cast<std::size_t>(pos), static_cast<std::size_t>(count), piece);
      break;
    }
    case 6: {
      const int pos = in.Upto(length);
      const int count = in.Upto(length - pos + 1);
      h.Erase(pos, count);
      m.erase(static_cast<std::size_t>(pos), static_cast<std::size_t>(count));
      break;
    }
    case 7: {
      const std::string set = in.Text();
      const int kind = in.Byte() % 3;
      if (kind == 0) {
        h.LeftTrim(set.c_str());
        std::size_t k = 0;
        while (k < m.size() && InSet(set, m[k])) ++k;
        m.erase(0, k);
      } else if (kind == 1) {
        h.RightTrim(set.c_str());
        std::size_t k = m.size();
        while (k > 0 && InSet(set, m[k - 1])) --k;
        m.erase(k);
      } else {
        h.Trim(set.c_str());
        std::string kept;
        for (char c : m)
          if (!InSet(set, c)) kept += c;
        m = kept;
      }
      break;
    }
    case 8: {
      const int kind = in.Byte() % 4;
      const auto lower = [](char c) { return c >= 'a' && c <= 'z'; };
      const auto upper = [](char c) { return c >= 'A' && c <= 'Z'; };
      if (kind == 0) {
        h.ToUpper();
        for (char& c : m) c = lower(c) ? static_cast<char>(c - 32) : c;
      } else if (kind == 1) {
        h.ToLower();
        for (char& c : m) c = upper(c) ? static_cast<char>(c + 32) : c;
      } else if (kind == 2) {
        h.Capitalize();
        if (!m.empty() && lower(m[0])) m[0] = static_cast<char>(m[0] - 32);
      } else {
        h.Uncapitalize();
        if (!m.empty() && upper(m[0])) m[0] = static_cast<char>(m[0] + 32);
      }
      break;
    }
    case 9:
      h.Reverse();
      m.assign(m.rbegin(), m.rend());
      break;
    case 10: {
      // The search uses what's text up to its first NUL and the replacement
      // removes what's full length; both are read afresh on every round, so a
      // handle substituted into itself follows its own edits.
      const int w = in.Byte() % kHandles;
      const int r = in.Byte() % kHandles;
      const int maxCount = in.Byte() % 8;
      const std::string what = p.m[w], with = p.m[r];
      h.Substitute(p.h[w], p.h[r], maxCount);
      if (!m.empty() && !what.empty()) {
        for (int n = 0; n < maxCount && !m.empty(); ++n) {
          const std::string& whatNow = w == i ? m : what;
          const std::size_t at = m.find(CPrefix(whatNow));
          if (at == std::string::npos) break;
          const std::size_t removed = whatNow.size();
          m.replace(at, removed, r == i ? std::string(m) : with);
        }
      }
      break;
    }
    case 11: {
      const std::string t = in.Text();
      const int from = in.Upto(length + 1);
      const std::string pattern = CPrefix(t);
      const std::size_t at = from > length ? std::string::npos : m.find(pattern, static_cast<std::size_t>(from));
      if (h.Find(t.c_str(), from) != (at == std::string::npos ? length : static_cast<int>(at))) Mismatch("Find", -1);
      const int last = in.Upto(length + 1);
      int expected = length;
      if (!t.empty() && last != 0) {
        for (std::size_t a = m.find(t); a != std::string::npos && static_cast<int>(a) <= last; a = m.find(t, a + 1))
          expected = static_cast<int>(a);
      }
      if (h.rfind(t.data(), static_cast<int>(t.size()), last) != expected) Mismatch("rfind", -1);
      break;
    }
    case 12:
      h.isolate(in.Upto(600));
      break;
    case 13: {  // own text as the source
      const int from = in.Upto(length);
      const int pos = in.Upto(length);
      const std::string piece = m.substr(static_cast<std::size_t>(from));
      h.insert(pos, h.CStr(), length, from, atr_StringBase::kAll);
      m.insert(static_cast<std::size_t>(pos), piece);
      break;
    }
    case 14: {
      // Borrowed text must stay NUL-terminated at its length.
      static const char kBorrowed[] = "borrowed Text\0with a NUL";
      static const struct {
        int offset, length;
      } kPieces[] = {{0, 13}, {0, 24}, {14, 10}, {13, 0}};
      const auto& piece = kPieces[in.Byte() % 4];
      h = TestString(kBorrowed + piece.offset, piece.length, atr_StringBase::BORROW);
      m.assign(kBorrowed + piece.offset, static_cast<std::size_t>(piece.length));
      break;
    }
    default: {
      const std::string t = in.Text();
      h = TestString(t.data(), static_cast<int>(t.size()));
      m = t;
      break;
    }
  }
}

void Check(const Pool& p, const atr_StringRep* const before[], int target, int step) {
  for (int i = 0; i < kHandles; ++i) {
    const TestString& h = p.h[i];
    const std::string& m = p.m[i];
    if (h.Length() != static_cast<int>(m.size())) Mismatch("length", step);
    if (std::memcmp(h.CStr(), m.data(), m.size()) != 0) Mismatch("text", step);
    if (h.CStr()[h.Length()] != '\0') Mismatch("terminating NUL", step);
    if (i != target && h.Rep() != before[i]) Mismatch("representation of an untouched handle", step);
    if (h.Rep() != nullptr) {
      int sharers = 0;
      for (int j = 0; j < kHandles; ++j) sharers += p.h[j].Rep() == h.Rep();
      if (h.Rep()->RefCount() != sharers) Mismatch("reference count", step);
      if (h.Rep()->Capacity() != 0 && h.Rep()->Capacity() <= h.Length()) Mismatch("capacity", step);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input in(data, size);
  Pool pool;
  for (int step = 0; in.More() && step < 2000; ++step) {
    const int target = in.Byte() % kHandles;
    const atr_StringRep* before[kHandles];
    for (int i = 0; i < kHandles; ++i) before[i] = pool.h[i].Rep();
    Step(pool, target, in);
    Check(pool, before, target, step);
    const std::size_t excess = pool.m[target].size() > kMaxLength ? pool.m[target].size() - kMaxLength / 2 : 0;
    if (excess > 0) {  // self-substitution doubles a text per round: cut it back
      pool.h[target].Erase(0, static_cast<int>(excess));
      pool.m[target].erase(0, excess);
    }
  }
  return 0;
}
