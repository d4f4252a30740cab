// The platform's named files for the stream library: whether a path exists or
// is readable, and temporary files ("<dir>/<prefix><XXXX>.TMP") that vanish
// when their last descriptor closes. Windows: _access, GetTempPathA,
// GetTempFileNameA, _open with _O_TEMPORARY.
#ifndef ZMXUTI_PLATFORM_TEMP_FILES_H
#define ZMXUTI_PLATFORM_TEMP_FILES_H

#include <cstddef>
#include <cstdio>

namespace zmx {
namespace platform {

// Longest path (with its NUL) that the temporary-file calls handle.
constexpr std::size_t kMaxPath = 260;

// True when `path` names something that exists / that this process may read.
// A null path is neither.
bool PathExists(const char* path);
bool PathReadable(const char* path);

// The directory for temporary files, without a trailing separator (except "/"
// itself): TMPDIR when it is set, not empty and short enough for a temporary
// file name below it to fit kMaxPath; otherwise P_tmpdir ("/tmp"). Read on
// every call. Like GetTempPathA, the directory is not checked to exist.
void TempDirectory(char (&dir)[kMaxPath]);

// The temporary-file name "<dir>/<prefix><XXXX>.TMP", XXXX the low 16 bits of
// `unique` in four upper-case hexadecimal digits. A name that would not fit is
// cut short (TempDirectory's result with a 3-letter prefix always fits).
void TempFileName(const char* dir, const char* prefix, unsigned int unique, char (&name)[kMaxPath]);

// Creates `name` exclusively (it must not exist), readable and writable by its
// owner, and removes its directory entry at once, so that the file disappears
// when its last descriptor closes, whoever closes it. Returns it as a "w+b"
// FILE; on failure null with *error set to the errno value (EEXIST when the
// name is taken, EACCES when access is refused).
std::FILE* OpenTempFile(const char* name, int* error);

}  // namespace platform
}  // namespace zmx

#endif  // ZMXUTI_PLATFORM_TEMP_FILES_H
