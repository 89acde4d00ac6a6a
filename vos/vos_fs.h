// Files and directories.
//
// Paths are split at '/' and at the backslash alike wherever this module splits them itself; a
// path handed to the system unchanged is read by the system, for which only '/' separates. A path
// is absolute when it begins with a separator.
//
// Operations that enter a directory change the current directory of the process and leave it where
// they ended, also after a failure. They create what is missing of it (mode 0777 less the umask).
// They must not run in two threads at once, nor while another thread relies on relative paths.
//
// Results, unless a call says otherwise: 1 success, -1 the operation failed, -2 no memory, -3
// invalid argument; failures are traced at level ERROR. Out-parameters are set to null or 0 first.
// Strings returned come from vos_mem and are freed by the caller with vos_mem_free. All calls block
// on the file system.

#ifndef VOS_FS_H
#define VOS_FS_H

#include <cstdint>
#include <cstdio>
#include <dirent.h>

constexpr int VOS_FS_OK = 1;
constexpr int VOS_FS_FAILED = -1;
constexpr int VOS_FS_NO_MEMORY = -2;
constexpr int VOS_FS_INVALID = -3;

constexpr uint32_t VOS_FS_TYPE_FILE = 1; // anything but a directory
constexpr uint32_t VOS_FS_TYPE_DIRECTORY = 2;

// Streams.

// Opens a file as fopen does, with the descriptor marked close-on-exec, so that no child process
// inherits it. Null for a null path and for a failed open, without a trace; the caller reports.
FILE *vos_fs_fopen(const char *path, const char *mode);

// Closes the stream, if there is one, and sets *stream to null. Always 1: a caller that must know
// whether its last bytes were stored flushes first.
int vos_fs_fclose(FILE **stream);

// Enters the absolute directory, then the directories in file_name (relative to it), and opens the
// last component of file_name there, close-on-exec.
int vos_fs_open_file(FILE **stream, const char *directory, const char *file_name, const char *mode);

// Status. None of these changes the current directory.

// Type, size in bytes (modulo 2^32), permission bits and time of last modification (seconds
// since the epoch, modulo 2^32) of directory/file_name. 1 or -1.
int vos_fs_get_file_stats(const char *directory, const char *file_name, uint32_t *type,
                          uint32_t *size, uint32_t *permissions, uint32_t *modified);

// Size in bytes of a file that is no directory; one of 4 GiB and more is a failure.
int vos_fs_get_file_size(const char *path, uint32_t *size);

// Both paths lead to one file, by links or otherwise. False when one leads nowhere; not traced.
bool vos_fs_is_same_file(const char *one, const char *other);

// Walking.

// Enters the directories of a relative path, component by component. With file_name the last
// component is a file's name: nothing is done to it, *file_name points to it inside path. Without,
// it is a directory like the others.
int vos_fs_enter_rel_dir(const char *path, const char **file_name);

// Enters an absolute directory.
int vos_fs_enter_dir(const char *path);

// Copying and moving. The destination is absolute; its directory is entered first, so a relative
// source is looked up there.

// Copies a file; the destination gets the mode of a new file. The copy gets the destination's name
// once it is complete, and takes the place of what was there, of a link too: after a failure, a
// full disk say, the destination is what it was before. A device or pipe is written to.
// Nothing else is touched, and a process that is killed on the way leaves nothing; but where the
// file system has no files without a name, and for the moment in which a file is replaced, the copy
// is "copy_" and four digits beside the destination.
// The bytes are on the disk when it returns 1.
int vos_fs_copy_file(const char *source, const char *destination);

// Renames a file, or, to another file system, copies it and removes the source. When only that
// removal fails, both are there and the result is -1.
int vos_fs_move_file(const char *source, const char *destination);

// The same with source_directory/name and destination_directory/name. name is relative.
int vos_fs_move_rel_file(const char *source_directory, const char *name,
                         const char *destination_directory);
int vos_fs_copy_rel_file(const char *source_directory, const char *name,
                         const char *destination_directory);

// The result of unlink: 0 or -1. Not traced.
int vos_fs_remove(const char *path);

// Directory listing, by one thread at a time. Failures are a null result without a trace.

struct VosDir {
    DIR *stream;
};

// Opens a listing; backslashes in path are replaced by '/' in place. Closed with vos_fs_close_dir.
VosDir *vos_fs_open_dir(char *path);

// Name of the next entry, "." and ".." included, valid until the next read; null at the end.
const char *vos_fs_read_dir(VosDir *directory);

// The same, with the entry's d_type code in *type (0: the file system does not tell).
const char *vos_fs_read_dir_entry(VosDir *directory, uint32_t *type);

void vos_fs_close_dir(VosDir **directory); // sets *directory to null; nothing for a null one

// Path strings.

// directory and name (either may be null) joined by one '/', backslashes turned into '/', ending in
// a '/' or not. Null when both are null, or without memory.
char *vos_fs_build_path(const char *directory, const char *name, bool trailing_separator);

// name without its last extension, with extension (may be null) in its place. With randomise, when
// a file of that name can be read, "_xxxx" of hexadecimal digits is put behind the base until none
// can; the digits come from rand(), which is not seeded here.
int vos_fs_make_unique_name(const char *name, const char *extension, char **result, bool randomise);

// path with new_name in place of what follows its last separator.
int vos_fs_replace_file_name(const char *path, const char *new_name, char **result);

// One block with the directory of path (up to and with its last separator, may be empty), a NUL,
// the file name and a NUL.
int vos_fs_split_path_block(const char *path, char **result);

// Directory (up to and with the last separator; directory may be null) and file name of path, each
// a string of its own. A path without either part is invalid.
int vos_fs_split_path(const char *path, char **directory, char **name);

#endif
