// What the parts of vos_fs and the trace files share; nobody else includes this.

#ifndef VOS_FS_PATH_H
#define VOS_FS_PATH_H

#include <cstddef>
#include <cstdint>

constexpr char VOS_FS_MODULE[] = "vos_fs"; // source name in the trace lines of all parts

inline bool vos_fs_is_separator(char character)
{
    return character == '/' || character == '\\';
}

inline bool vos_fs_is_empty(const char *text)
{
    return text == nullptr || text[0] == '\0';
}

// Length of the part of path up to and with its last separator; 0 without one.
uint32_t vos_fs_directory_length(const char *path);

// A new string: text and suffix. Null without memory.
char *vos_fs_append(const char *text, const char *suffix);

// A new string: directory (not empty), one separator, name. Null without memory.
char *vos_fs_join(const char *directory, const char *name);

bool vos_fs_can_be_read(const char *path);

// Writes the hexadecimal digits, drawn by rand(), that make a name unique. No NUL.
constexpr size_t VOS_FS_UNIQUE_DIGITS = 4;
void vos_fs_write_unique_digits(char *to);

#endif
