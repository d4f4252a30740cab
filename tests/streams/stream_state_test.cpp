// Stream state: attaching, owning and closing, the input and output failure
// steps, sticky state, and streams with nothing attached.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "ZMXUTI_CoreUtils.h"
#include "stream_files.h"

namespace {

using stream_test::TempFile;

bool DescriptorOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

// A FILE opened read-only on a temporary file: writes to it set its error flag.
FILE* ReadOnlyFile(TempFile& backing) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/self/fd/%d", fileno(backing.get()));
  return std::fopen(path, "r");
}

TEST(StreamState, CloseReportsFailureInvertedAndAlwaysClearsState) {
  aio_ostream s;
  s.print("x");
  EXPECT_EQ(s.rdstate(), 2u);
  EXPECT_FALSE(s.close());  // nothing attached: false, state cleared
  EXPECT_EQ(s.rdstate(), 0u);

  TempFile t;
  s.attach(t.release(), true);
  s.print("abc");
  const int fd = s.fd();
  ASSERT_TRUE(DescriptorOpen(fd));
  EXPECT_FALSE(s.close());  // fclose succeeded
  EXPECT_EQ(s.fptr(), nullptr);
  EXPECT_FALSE(DescriptorOpen(fd));
  EXPECT_EQ(s.fd(), -1);

  // fclose failing (descriptor closed behind the FILE's back, data pending): true.
  TempFile u;
  FILE* f = u.release();
  s.attach(f, false);
  s.print("pending");
  ::close(fileno(f));
  EXPECT_TRUE(s.close());
  EXPECT_EQ(s.rdstate(), 0u);
}

TEST(StreamState, AttachClosesAnOwnedFileAndKeepsStateOtherwise) {
  TempFile first, second;
  const int firstFd = fileno(first.get());
  aio_ostream s;
  s.attach(first.release(), true);
  s.write("x", -1);  // a failure so that the state is not 0
  EXPECT_EQ(s.rdstate(), 2u);
  s.attach(second.get(), false);  // owned one closed first, which clears the state
  EXPECT_FALSE(DescriptorOpen(firstFd));
  EXPECT_EQ(s.rdstate(), 0u);
  s.write("x", -1);
  TempFile third;
  s.attach(third.get(), false);  // nothing owned: state kept
  EXPECT_EQ(s.rdstate(), 2u);
  EXPECT_EQ(s.fptr(), third.get());
  EXPECT_EQ(s.fd(), fileno(third.get()));
}

TEST(StreamState, DestroyingAStreamClosesOnlyAnOwnedFile) {
  TempFile owned, borrowed;
  const int ownedFd = fileno(owned.get());
  {
    aio_istream a;
    a.attach(owned.release(), true);
    aio_istream b;
    b.attach(borrowed.get(), false);
  }
  EXPECT_FALSE(DescriptorOpen(ownedFd));
  EXPECT_TRUE(DescriptorOpen(fileno(borrowed.get())));
}

TEST(StreamState, AdoptWrapsADescriptorAndOwnsIt) {
  TempFile t;
  aio_ostream out;
  const int outFd = dup(fileno(t.get()));
  out.adopt(outFd);
  out.print("adopted");
  out.flush();
  EXPECT_EQ(t.Contents(), "adopted");

  aio_istream in;
  const int inFd = open("/proc/self/exe", O_RDONLY);
  in.adopt(inFd);
  EXPECT_EQ(in.get(), 0x7F);  // ELF magic
  in.close();
  out.close();
  EXPECT_FALSE(DescriptorOpen(outFd));
  EXPECT_FALSE(DescriptorOpen(inFd));

  aio_istream bad;
  bad.adopt(-1);  // fdopen refuses: null attached, reads only fail
  EXPECT_EQ(bad.fptr(), nullptr);
  EXPECT_EQ(bad.get(), -1);
  EXPECT_EQ(bad.rdstate(), 2u);
}

TEST(StreamState, OutputFailureSetsBadBitWhenTheFileReportsAnError) {
  TempFile backing;
  FILE* readOnly = ReadOnlyFile(backing);
  ASSERT_NE(readOnly, nullptr);
  aio_ostream s;
  s.attach(readOnly, true);
  s.print_int(42);
  s.flush();
  EXPECT_EQ(s.rdstate(), 6u);
  // Only close() clears the state; attaching over an unowned FILE keeps it,
  // and a failed stream still writes.
  s.close();
  s.write("x", -1);
  EXPECT_EQ(s.rdstate(), 2u);
  TempFile good;
  s.attach(good.get(), false);
  s.print_int(7).print(" still written");
  EXPECT_EQ(good.Contents(), "7 still written");
  EXPECT_EQ(s.rdstate(), 2u);
}

TEST(StreamState, InputFailureStepDistinguishesEndOfFileFromErrors) {
  TempFile empty("");
  aio_istream s;
  s.attach(empty.get(), false);
  EXPECT_EQ(s.get(), -1);
  EXPECT_EQ(s.rdstate(), 3u);  // failure and end of file

  // A number that does not match: failure only, no end of file.
  TempFile word("abc");
  aio_istream w;
  w.attach(word.get(), false);
  EXPECT_EQ(w.scan_int(), 0);
  EXPECT_EQ(w.rdstate(), 2u);
  EXPECT_TRUE(w.fail());
  EXPECT_FALSE(w.eof());
  // Sticky: a good read afterwards leaves the state alone.
  EXPECT_EQ(w.get(), 'a');
  EXPECT_EQ(w.rdstate(), 2u);

  // Reading from a write-only FILE sets the FILE's error flag: bad, not end of file.
  FILE* writeOnly = std::fopen("/dev/null", "w");
  aio_istream b;
  b.attach(writeOnly, true);
  EXPECT_EQ(b.get(), -1);
  EXPECT_EQ(b.rdstate(), 6u);
  EXPECT_TRUE(b.bad());
}

// Every member on an unattached stream: no crash, only the failure bit.
TEST(StreamState, UnattachedStreamsOnlyFail) {
  aio_istream in;
  char buf[8] = "keep";
  EXPECT_EQ(in.scan_int(), 0);
  EXPECT_EQ(in.scan_u_int(), 0u);
  EXPECT_EQ(in.scan_int64(), 0);
  EXPECT_EQ(in.scan_u_int64(), 0u);
  EXPECT_EQ(in.scan_double(), 0.0);
  EXPECT_EQ(in.scan_float(), 0.0f);
  EXPECT_EQ(in.scan_char(), 0);
  EXPECT_EQ(in.rdstate(), 2u);
  in.getline(buf, 8);
  EXPECT_STREQ(buf, "keep");
  EXPECT_EQ(in.peek(), -1);
  in.putback('a');
  EXPECT_EQ(in.read(buf, 4), 0);
  EXPECT_EQ(in.get(), -1);
  in.ignore(3, '\n');
  EXPECT_EQ(in.rdstate(), 2u);
  in.scan_string(buf);
  EXPECT_EQ(buf[0], '\0');
  EXPECT_EQ(in.fd(), -1);
  EXPECT_EQ(in.rdstate(), 2u);

  aio_ostream out;
  out.print("a").print_int(1).print_u_int(1).print_int64(1).print_u_int64(1);
  out.print_double(1).print_address(&out).put('c').write("ab", 2);
  aio_setwidth(out, 4).print_int(1);
  EXPECT_EQ(out.width(), 4);  // nothing was formatted, so the once-only width stays
  EXPECT_EQ(out.rdstate(), 2u);
  aio_ostream flushOnly;
  flushOnly.flush();  // flushes every runtime stream; not a failure
  EXPECT_EQ(flushOnly.rdstate(), 0u);
}

TEST(StreamState, CopyMovesEverythingUntilTheInputStops) {
  std::string data;
  for (int i = 0; i < 40000; ++i) data += static_cast<char>((i * 7919) % 256);
  TempFile source(data), target;
  aio_istream in;
  in.attach(source.get(), false);
  aio_ostream out;
  out.attach(target.get(), false);
  out.copy(in);
  EXPECT_EQ(target.Contents(), data);
  EXPECT_EQ(in.rdstate(), 3u);
  EXPECT_EQ(out.rdstate(), 0u);
  // A failed input copies nothing more.
  out.copy(in);
  EXPECT_EQ(target.Contents().size(), data.size());
}

}  // namespace
