// Differential test: a pool of string handles that share copies, driven by the
// same random operations as a pool of std::string models. After every step
// each handle must hold its model's text, the handles the operation did not
// name must keep their representation, and every reference count must equal
// the number of handles that share the representation.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/strings/test_string.h"

namespace {

constexpr int kHandles = 6;
constexpr int kMaxModelLength = 1500;  // long enough to cross the 238-byte inline limit often

// Texts to borrow: they outlive every handle (read-only storage: a write would fault).
const char kBorrowPool[][40] = {"borrowed", "Borrowed Text With Caps", "a", "  spaced  out  ", "xyxyxyxyxy"};

class Differential {
 public:
  explicit Differential(std::uint32_t seed) : m_rng(seed) {}

  void Run(int steps) {
    for (m_step = 0; m_step < steps; ++m_step) {
      const int target = Pick(kHandles);
      Snapshot();
      m_lastOp = Step(target);
      Verify(target);
      if (::testing::Test::HasFailure()) return;
    }
  }

 private:
  int Pick(int n) { return static_cast<int>(m_rng() % static_cast<std::uint32_t>(n)); }
  bool Chance(int percent) { return Pick(100) < percent; }

  // Mostly short texts, some around the inline limit, a few long ones.
  std::string RandomText() {
    static const char kAlphabet[] = "abcxyzABCXYZ019 .-_\t\xc3\xa9\xff";
    const int shape = Pick(10);
    const int length = shape < 6 ? Pick(16) : (shape < 9 ? 200 + Pick(60) : 300 + Pick(400));
    std::string s;
    for (int i = 0; i < length; ++i) s += kAlphabet[Pick(static_cast<int>(sizeof kAlphabet) - 1)];
    return s;
  }
  std::string RandomSet() {
    static const char* const kSets[] = {" ", "a", "xyz", " .-\t", "aA0", "\xff", ""};
    return kSets[Pick(7)];
  }
  int RandomPos(int length) { return Pick(length + 1); }
  int RandomCount(int rest) { return Chance(10) ? atr_StringBase::kAll : Pick(rest + 3); }

  // Records every handle's representation and text before a step.
  void Snapshot() {
    for (int i = 0; i < kHandles; ++i) {
      m_repBefore[i] = m_h[i].Rep();
      m_textBefore[i] = m_h[i].CStr();
    }
  }

  const char* Step(int i) {
    TestString& h = m_h[i];
    std::string& m = m_m[i];
    const int length = static_cast<int>(m.size());
    switch (Pick(22)) {
      case 0:
      case 1: {  // share another handle
        const int j = Pick(kHandles);
        h = m_h[j];
        m = m_m[j];
        EXPECT_EQ(h.Rep(), m_h[j].Rep());
        return "share";
      }
      case 2: {
        const std::string text = RandomText();
        h = text.c_str();
        m = text;
        return "assign";
      }
      case 3: {
        const std::string src = RandomText();
        const int from = Pick(static_cast<int>(src.size()) + 2);
        const int count = RandomCount(static_cast<int>(src.size()));
        h.append(src.c_str(), static_cast<int>(src.size()), from, count);
        if (from < static_cast<int>(src.size())) m += src.substr(static_cast<size_t>(from), static_cast<size_t>(count));
        return "append";
      }
      case 4: {
        const std::string src = RandomText();
        const int pos = RandomPos(length);
        const int from = Pick(static_cast<int>(src.size()) + 1);
        const int count = RandomCount(static_cast<int>(src.size()));
        h.insert(pos, src.c_str(), static_cast<int>(src.size()), from, count);
        if (from < static_cast<int>(src.size()))
          m.insert(static_cast<size_t>(pos), src.substr(static_cast<size_t>(from), static_cast<size_t>(count)));
        return "insert";
      }
      case 5: {
        const std::string src = RandomText();
        const int pos = RandomPos(length);
        const int count = RandomCount(length - pos);
        const int from = Pick(static_cast<int>(src.size()) + 1);
        const int count2 = RandomCount(static_cast<int>(src.size()));
        h.replace(pos, count, src.c_str(), static_cast<int>(src.size()), from, count2);
        const std::string piece =
            from < static_cast<int>(src.size()) ? src.substr(static_cast<size_t>(from), static_cast<size_t>(count2)) : "";
        m.replace(static_cast<size_t>(pos), static_cast<size_t>(count), piece);
        return "replace";
      }
      case 6: {  // replace by another handle, possibly itself or a sharer
        const int j = Pick(kHandles);
        const int pos = RandomPos(length);
        const int count = RandomCount(length - pos);
        const std::string piece = m_m[j];
        h.Replace(pos, count, m_h[j]);
        m.replace(static_cast<size_t>(pos), static_cast<size_t>(count), piece);
        return "Replace(handle)";
      }
      case 7: {
        const int pos = RandomPos(length);
        const int count = RandomCount(length - pos);
        h.Erase(pos, count);
        m.erase(static_cast<size_t>(pos), static_cast<size_t>(count));
        return "Erase";
      }
      case 8: {
        const std::string set = RandomSet();
        switch (Pick(3)) {
          case 0:
            h.LeftTrim(set.c_str());
            m.erase(0, m.find_first_not_of(set) == std::string::npos ? m.size() : m.find_first_not_of(set));
            return "LeftTrim";
          case 1: {
            h.RightTrim(set.c_str());
            const size_t keep = m.find_last_not_of(set);
            m.erase(keep == std::string::npos ? 0 : keep + 1);
            return "RightTrim";
          }
          default: {
            h.Trim(set.c_str());
            std::string kept;
            for (char c : m)
              if (set.find(c) == std::string::npos) kept += c;
            m = kept;
            return "Trim";
          }
        }
      }
      case 9:
        return CaseStep(h, m);
      case 10:
        h.Reverse();
        m.assign(m.rbegin(), m.rend());
        return "Reverse";
      case 11: {  // Substitute with a piece of the string itself or a short text
        const std::string what = length > 0 && Chance(60)
                                     ? m.substr(static_cast<size_t>(Pick(length)), static_cast<size_t>(1 + Pick(3)))
                                     : RandomText().substr(0, 2);
        const std::string with = RandomText().substr(0, static_cast<size_t>(Pick(4)));
        const int maxCount = Pick(5);
        h.Substitute(TestString(what.c_str()), TestString(with.c_str()), maxCount);
        if (!m.empty() && !what.empty()) {
          for (int n = 0; n < maxCount; ++n) {
            const size_t at = m.find(what);
            if (at == std::string::npos) break;
            m.replace(at, what.size(), with);
          }
        }
        return "Substitute";
      }
      case 12: {
        if (length == 0) return "index(skip)";
        const int at = Pick(length);
        const char c = static_cast<char>('A' + Pick(26));
        h[at] = c;
        m[static_cast<size_t>(at)] = c;
        return "operator[]";
      }
      case 13: {
        h.isolate(Pick(400));
        return "isolate";
      }
      case 14:
        return SearchStep(h, m);
      case 15: {  // text of its own: append, insert or assign from itself
        const int from = RandomPos(length);
        const int count = RandomCount(length - from);
        const std::string piece = m.substr(static_cast<size_t>(from), static_cast<size_t>(count));
        if (Chance(50)) {
          h.append(h.CStr(), length, from, count);
          m += piece;
          return "append(self)";
        }
        const int pos = RandomPos(length);
        h.insert(pos, h.CStr(), length, from, count);
        m.insert(static_cast<size_t>(pos), piece);
        return "insert(self)";
      }
      case 16: {
        const int k = Pick(5);
        const int n = static_cast<int>(std::strlen(kBorrowPool[k]));
        h = TestString(kBorrowPool[k], n, atr_StringBase::BORROW);
        m = kBorrowPool[k];
        return "borrow";
      }
      case 17: {
        const std::string text = RandomText();
        char* buffer = static_cast<char*>(mem_Malloc(text.size() + 1));
        std::memcpy(buffer, text.c_str(), text.size() + 1);
        h = TestString(buffer, static_cast<int>(text.size()), atr_StringBase::ADOPT);
        m = text;
        return "adopt";
      }
      case 18: {
        h = TestString(Pick(300), atr_StringBase::PRESIZE);
        m.clear();
        return "presize";
      }
      case 19: {
        const std::string text = RandomText();
        const int n = Pick(static_cast<int>(text.size()) + 1);
        h = TestString(text.c_str(), n);
        m = text.substr(0, static_cast<size_t>(n));
        return "construct(n)";
      }
      case 20: {  // replace through a temporary copy of raw bytes
        const std::string src = RandomText();
        const int pos = RandomPos(length);
        const int count = RandomCount(length - pos);
        h.Replace(pos, count, src.c_str(), static_cast<int>(src.size()));
        m.replace(static_cast<size_t>(pos), static_cast<size_t>(count), src);
        return "Replace(bytes)";
      }
      default:
        h = TestString();
        m.clear();
        EXPECT_EQ(h.Rep(), nullptr);
        return "clear";
    }
  }

  const char* CaseStep(TestString& h, std::string& m) {
    const std::string before = m;
    const atr_StringRep* repBefore = h.Rep();
    const char* name;
    const auto lower = [](char c) { return c >= 'a' && c <= 'z'; };
    const auto upper = [](char c) { return c >= 'A' && c <= 'Z'; };
    switch (Pick(4)) {
      case 0:
        h.ToUpper();
        for (char& c : m) c = lower(c) ? static_cast<char>(c - 32) : c;
        name = "ToUpper";
        break;
      case 1:
        h.ToLower();
        for (char& c : m) c = upper(c) ? static_cast<char>(c + 32) : c;
        name = "ToLower";
        break;
      case 2:
        h.Capitalize();
        if (!m.empty() && lower(m[0])) m[0] = static_cast<char>(m[0] - 32);
        name = "Capitalize";
        break;
      default:
        h.Uncapitalize();
        if (!m.empty() && upper(m[0])) m[0] = static_cast<char>(m[0] + 32);
        name = "Uncapitalize";
        break;
    }
    // A case change that changes nothing never copies.
    if (m == before) {
      EXPECT_EQ(h.Rep(), repBefore) << name;
    }
    return name;
  }

  const char* SearchStep(const TestString& h, const std::string& m) {
    const int length = static_cast<int>(m.size());
    const std::string pattern = length > 0 && Chance(70)
                                    ? m.substr(static_cast<size_t>(Pick(length)), static_cast<size_t>(Pick(4)))
                                    : RandomText().substr(0, 3);
    const int from = Pick(length + 3);
    size_t found = from > length ? std::string::npos : m.find(pattern, static_cast<size_t>(from));
    EXPECT_EQ(h.Find(pattern.c_str(), from), found == std::string::npos ? length : static_cast<int>(found))
        << "Find '" << pattern << "' from " << from;

    const int n = static_cast<int>(pattern.size());
    const int last = Pick(length + 2);
    int expected = length;
    if (n != 0 && last != 0) {
      for (size_t at = m.find(pattern); at != std::string::npos && static_cast<int>(at) <= last;
           at = m.find(pattern, at + 1))
        expected = static_cast<int>(at);
    }
    EXPECT_EQ(h.rfind(pattern.c_str(), n, last), expected) << "rfind '" << pattern << "' last " << last;

    const int pos = RandomPos(length);
    const int count = Pick(length + 2);
    EXPECT_EQ(h.Substr(pos, count), std::min(count, length - pos));
    return "search";
  }

  void Verify(int target) {
    std::map<const atr_StringRep*, int> sharers;
    for (int i = 0; i < kHandles; ++i) {
      const TestString& h = m_h[i];
      const std::string& m = m_m[i];
      ASSERT_EQ(h.Length(), static_cast<int>(m.size())) << Where(i);
      ASSERT_EQ(std::memcmp(h.CStr(), m.data(), m.size()), 0) << Where(i);
      ASSERT_EQ(h.CStr()[h.Length()], '\0') << Where(i);
      if (i != target) {
        // Another handle's edit never moves or changes this one.
        ASSERT_EQ(h.Rep(), m_repBefore[i]) << Where(i);
        ASSERT_EQ(h.CStr(), m_textBefore[i]) << Where(i);
      }
      if (h.Rep() != nullptr) {
        ++sharers[h.Rep()];
        const int capacity = h.Capacity();
        if (h.TextIsInline()) {
          ASSERT_EQ((capacity - 20) % 32, 0) << Where(i);
          ASSERT_LE(capacity, 244) << Where(i);
        }
        if (capacity != 0) {
          ASSERT_GT(capacity, h.Length()) << Where(i);
        }
      }
    }
    for (const auto& entry : sharers) ASSERT_EQ(entry.first->RefCount(), entry.second) << Where(target);
    // Keep lengths bounded so the run stays fast.
    for (int i = 0; i < kHandles; ++i) {
      if (static_cast<int>(m_m[i].size()) > kMaxModelLength) {
        m_h[i].Erase(0, kMaxModelLength / 2);
        m_m[i].erase(0, kMaxModelLength / 2);
      }
    }
  }

  std::string Where(int i) const {
    return "step " + std::to_string(m_step) + " after " + m_lastOp + ", handle " + std::to_string(i) +
           ", model '" + m_m[i] + "'";
  }

  std::mt19937 m_rng;
  TestString m_h[kHandles];
  std::string m_m[kHandles];
  const atr_StringRep* m_repBefore[kHandles] = {};
  const char* m_textBefore[kHandles] = {};
  int m_step = 0;
  const char* m_lastOp = "";
};

class StringDifferential : public ::testing::TestWithParam<std::uint32_t> {};

TEST_P(StringDifferential, HandlesFollowTheirModelsAndSharersNeverChange) {
  Differential run(GetParam());
  run.Run(100000);
}

INSTANTIATE_TEST_SUITE_P(Seeds, StringDifferential, ::testing::Values(1u, 20261122u, 777u, 31337u));

}  // namespace
