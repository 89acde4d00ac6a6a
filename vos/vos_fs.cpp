#include "vos_fs.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "vos_fs_path.h"
#include "vos_mem.h"
#include "vos_trace.h"

namespace
{

constexpr const char *MODULE = VOS_FS_MODULE;
constexpr uint32_t COPY_BUFFER_SIZE = 10240;
constexpr char TEMPORARY_NAME[] = "copy_"; // and unique digits
constexpr int UNIQUE_DRAWS_MAX = 1000;
constexpr mode_t DIRECTORY_MODE = 0777;
constexpr mode_t FILE_MODE = 0666;
constexpr mode_t PERMISSION_BITS = 0777;

void mark_close_on_exec(FILE *stream)
{
    const int descriptor = fileno(stream);
    const int flags = fcntl(descriptor, F_GETFD);
    if (flags >= 0) {
        fcntl(descriptor, F_SETFD, flags | FD_CLOEXEC);
    }
}

int enter_component(const char *component)
{
    if (access(component, F_OK) != 0 && mkdir(component, DIRECTORY_MODE) != 0) {
        vos_trace_error(MODULE, __LINE__, "Can't create directory \"%s\" : %s", component,
                        strerror(errno));
        return VOS_FS_FAILED;
    }
    if (chdir(component) != 0) {
        vos_trace_error(MODULE, __LINE__, "Can't change directory \"%s\" : %s", component,
                        strerror(errno));
        return VOS_FS_FAILED;
    }
    return VOS_FS_OK;
}

// Enters every component of path that a separator ends, cutting path apart on the way; *rest is
// what follows the last separator.
int enter_components(char *path, char **rest)
{
    *rest = path;
    for (char *end = path; *end != '\0'; ++end) {
        if (!vos_fs_is_separator(*end)) {
            continue;
        }
        if (end == *rest) {
            vos_trace_error(MODULE, __LINE__, "Invalid directory/file name");
            return VOS_FS_FAILED;
        }
        *end = '\0';
        if (enter_component(*rest) != VOS_FS_OK) {
            return VOS_FS_FAILED;
        }
        *rest = end + 1;
    }
    return VOS_FS_OK;
}

// Enters the directory that path lies in.
int enter_directory_of(const char *path)
{
    const uint32_t length = vos_fs_directory_length(path);
    if (length == 0) {
        vos_trace_error(MODULE, __LINE__, "Invalid destination filename");
        return VOS_FS_INVALID;
    }
    char *directory = vos_mem_strndup(path, length);
    if (directory == nullptr) {
        vos_trace_error(MODULE, __LINE__, "Memory overflow");
        return VOS_FS_NO_MEMORY;
    }
    const int result = vos_fs_enter_dir(directory);
    vos_mem_free(&directory);
    return result;
}

// The file's name and its directory as the system reads the path: a backslash is part of a name.

const char *name_of(const char *path)
{
    const char *slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

// A new string; null without memory.
char *system_directory_of(const char *path)
{
    const auto length = static_cast<uint32_t>(name_of(path) - path);
    char *directory = vos_mem_strndup(path, length + 1);
    if (directory != nullptr && directory[length] != '\0') {
        directory[length] = '.'; // "/a/b" gives "/a/.", "b" gives "."
    }
    return directory;
}

int copy_bytes(FILE *from, const char *source, FILE *to, const char *destination, char *buffer)
{
    size_t count = 0;
    while ((count = fread(buffer, 1, COPY_BUFFER_SIZE, from)) != 0) {
        if (fwrite(buffer, 1, count, to) != count) {
            vos_trace_error(MODULE, __LINE__, "Can't write dest file \"%s\" : %s", destination,
                            strerror(errno));
            return VOS_FS_FAILED;
        }
    }
    if (ferror(from) != 0) {
        vos_trace_error(MODULE, __LINE__, "Can't read source file \"%s\" : %s", source,
                        strerror(errno));
        return VOS_FS_FAILED;
    }
    // A file that can't be synced at all is as stored as it gets.
    if (fflush(to) != 0 || (fsync(fileno(to)) != 0 && errno != EINVAL)) {
        vos_trace_error(MODULE, __LINE__, "Can't write dest file \"%s\" : %s", destination,
                        strerror(errno));
        return VOS_FS_FAILED;
    }
    return VOS_FS_OK;
}

// Where time_t has 32 bits, stat refuses a file with a time after January 2038; this does not.
bool look_at(const char *path, struct statx *status)
{
    return statx(AT_FDCWD, path, 0, STATX_BASIC_STATS, status) == 0;
}

bool is_directory(const char *path)
{
    struct statx status = {};
    return look_at(path, &status) && S_ISDIR(status.stx_mode);
}

// A copy under way: a file of the destination's directory that gets the destination's name once it
// is complete, so that this name only ever leads to a whole file, the one before or the new one.
struct NewFile {
    FILE *stream;
    int directory;      // descriptor
    const char *name;   // of the destination
    const char *linked; // name by now, to be removed after a failure; null for none
    char temporary[sizeof TEMPORARY_NAME + VOS_FS_UNIQUE_DIGITS];
    char shown[32]; // where the system shows an open file without a name
};

// Makes an entry of a name that the directory does not have, by a call that fails with EEXIST for
// one that it has.
template<typename Call> int under_unique_name(NewFile *file, Call call)
{
    memcpy(file->temporary, TEMPORARY_NAME, sizeof TEMPORARY_NAME);
    int result = -1;
    errno = EEXIST;
    for (int draw = 0; draw < UNIQUE_DRAWS_MAX && result < 0 && errno == EEXIST; ++draw) {
        vos_fs_write_unique_digits(file->temporary + sizeof TEMPORARY_NAME - 1);
        result = call(file->temporary);
    }
    file->linked = result >= 0 ? file->temporary : nullptr;
    return result;
}

// The process's umask, which some kernels don't apply to a file without a name. To ask the system
// for it would be to set it, for the files of other threads, too.
mode_t creation_mask()
{
    constexpr char NAME[] = "Umask:";
    mode_t mask = S_IWGRP | S_IWOTH;
    FILE *status = vos_fs_fopen("/proc/self/status", "r");
    char line[256];
    while (status != nullptr && fgets(line, sizeof line, status) != nullptr) {
        if (strncmp(line, NAME, sizeof NAME - 1) == 0) {
            mask = static_cast<mode_t>(strtoul(line + sizeof NAME - 1, nullptr, 8));
            break;
        }
    }
    vos_fs_fclose(&status);
    return mask;
}

// A file without a name goes with the process, however that ends. -1 where the file system has none
// such, or no way to name it later.
int open_nameless(NewFile *file)
{
    const int flags = O_TMPFILE | O_WRONLY | O_CLOEXEC;
    const int descriptor = openat(file->directory, ".", flags, FILE_MODE & ~creation_mask());
    snprintf(file->shown, sizeof file->shown, "/proc/self/fd/%d", descriptor);
    if (descriptor >= 0 && access(file->shown, F_OK) != 0) {
        close(descriptor);
        return -1;
    }
    return descriptor;
}

bool create_file(NewFile *file)
{
    int descriptor = open_nameless(file);
    if (descriptor < 0) {
        descriptor = under_unique_name(file, [file](const char *name) {
            const int flags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC;
            return openat(file->directory, name, flags, FILE_MODE);
        });
    }
    file->stream = descriptor >= 0 ? fdopen(descriptor, "wb") : nullptr;
    if (file->stream == nullptr && descriptor >= 0) {
        const int error = errno;
        close(descriptor);
        errno = error;
    }
    return file->stream != nullptr;
}

// The new name is on the disk only once its directory is; some file systems can't sync one, which
// says nothing about the copy.
void sync_directory(int directory)
{
    const int descriptor = openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor >= 0) {
        fsync(descriptor);
        close(descriptor);
    }
}

// Under the destination's name, or under another one when that is taken.
bool link_nameless(NewFile *file)
{
    const auto link_as = [file](const char *name) {
        return linkat(AT_FDCWD, file->shown, file->directory, name, AT_SYMLINK_FOLLOW);
    };
    if (link_as(file->name) == 0) {
        file->linked = file->name;
        return true;
    }
    return errno == EEXIST && under_unique_name(file, link_as) >= 0;
}

bool give_name(NewFile *file)
{
    if (file->linked == nullptr && !link_nameless(file)) {
        return false;
    }
    const bool closed = fclose(file->stream) == 0;
    file->stream = nullptr;
    if (!closed || (file->linked != file->name &&
                    renameat(file->directory, file->linked, file->directory, file->name) != 0)) {
        return false;
    }
    file->linked = nullptr;
    sync_directory(file->directory);
    return true;
}

int write_new_file(NewFile *file, FILE *from, const char *source, const char *destination,
                   char *buffer)
{
    if (file->directory < 0 || !create_file(file)) {
        vos_trace_error(MODULE, __LINE__, "Can't open dest file \"%s\" : %s", destination,
                        strerror(errno));
        return VOS_FS_FAILED;
    }
    const int result = copy_bytes(from, source, file->stream, destination, buffer);
    if (result == VOS_FS_OK && !give_name(file)) {
        vos_trace_error(MODULE, __LINE__, "Can't write dest file \"%s\" : %s", destination,
                        strerror(errno));
        return VOS_FS_FAILED;
    }
    return result;
}

int copy_to_new(FILE *from, const char *source, const char *destination, const char *directory,
                char *buffer)
{
    NewFile file{};
    file.directory = open(directory, O_PATH | O_DIRECTORY | O_CLOEXEC);
    file.name = name_of(destination);
    const int result = write_new_file(&file, from, source, destination, buffer);
    if (file.linked != nullptr) {
        unlinkat(file.directory, file.linked, 0);
    }
    vos_fs_fclose(&file.stream);
    if (file.directory >= 0) {
        close(file.directory);
    }
    return result;
}

// A device or a pipe is written to, not replaced.
int copy_to_special(FILE *from, const char *source, const char *destination, char *buffer)
{
    FILE *to = vos_fs_fopen(destination, "wb");
    if (to == nullptr) {
        vos_trace_error(MODULE, __LINE__, "Can't open dest file \"%s\" : %s", destination,
                        strerror(errno));
        return VOS_FS_FAILED;
    }
    const int result = copy_bytes(from, source, to, destination, buffer);
    vos_fs_fclose(&to);
    return result;
}

bool is_special(const char *path)
{
    struct statx status = {};
    return look_at(path, &status) && !S_ISREG(status.stx_mode);
}

int copy_stream(FILE *from, const char *source, const char *destination)
{
    char *buffer = nullptr;
    char *directory = system_directory_of(destination);
    vos_mem_alloc(&buffer, COPY_BUFFER_SIZE);
    int result = VOS_FS_NO_MEMORY;
    if (buffer == nullptr || directory == nullptr) {
        vos_trace_error(MODULE, __LINE__, "Memory overflow");
    } else if (is_special(destination)) {
        result = copy_to_special(from, source, destination, buffer);
    } else {
        result = copy_to_new(from, source, destination, directory, buffer);
    }
    vos_mem_free(&directory);
    vos_mem_free(&buffer);
    return result;
}

int rel_file(const char *source_directory, const char *name, const char *destination_directory,
             int (*operation)(const char *, const char *))
{
    if (vos_fs_is_empty(source_directory) || vos_fs_is_empty(name) ||
        vos_fs_is_empty(destination_directory)) {
        vos_trace_error(MODULE, __LINE__, "Invalid parameter");
        return VOS_FS_INVALID;
    }
    if (vos_fs_is_separator(name[0])) {
        vos_trace_error(MODULE, __LINE__, "Invalid relative filename \"%s\"", name);
        return VOS_FS_INVALID;
    }
    char *source = vos_fs_join(source_directory, name);
    char *destination = vos_fs_join(destination_directory, name);
    const int result = source != nullptr && destination != nullptr ? operation(source, destination)
                                                                   : VOS_FS_NO_MEMORY;
    vos_mem_free(&source);
    vos_mem_free(&destination);
    return result;
}

} // namespace

FILE *vos_fs_fopen(const char *path, const char *mode)
{
    if (path == nullptr) {
        return nullptr;
    }
    FILE *stream = fopen(path, mode);
    if (stream != nullptr) {
        mark_close_on_exec(stream);
    }
    return stream;
}

int vos_fs_fclose(FILE **stream)
{
    if (*stream != nullptr) {
        fclose(*stream);
        *stream = nullptr;
    }
    return VOS_FS_OK;
}

int vos_fs_open_file(FILE **stream, const char *directory, const char *file_name, const char *mode)
{
    *stream = nullptr;
    if (vos_fs_is_empty(directory) || file_name == nullptr) {
        vos_trace_error(MODULE, __LINE__, "Invalid parameter dirname=\"%s\" filename=\"%s\"",
                        directory != nullptr ? directory : "(null)",
                        file_name != nullptr ? file_name : "(null)");
        return VOS_FS_INVALID;
    }
    const char *last = nullptr;
    int result = vos_fs_enter_dir(directory);
    if (result == VOS_FS_OK) {
        result = vos_fs_enter_rel_dir(file_name, &last);
    }
    if (result != VOS_FS_OK) {
        return result;
    }
    *stream = vos_fs_fopen(last, mode);
    if (*stream == nullptr) {
        vos_trace_error(MODULE, __LINE__, "Cant open file \"%s\" : %s", last, strerror(errno));
        return VOS_FS_FAILED;
    }
    return VOS_FS_OK;
}

int vos_fs_get_file_stats(const char *directory, const char *file_name, uint32_t *type,
                          uint32_t *size, uint32_t *permissions, uint32_t *modified)
{
    *type = *size = *permissions = *modified = 0;
    if (directory == nullptr || file_name == nullptr) {
        vos_trace_error(MODULE, __LINE__, "Invalid filename");
        return VOS_FS_FAILED;
    }
    char *path = vos_fs_build_path(directory, file_name, false);
    struct statx status = {};
    if (path == nullptr || !look_at(path, &status)) {
        vos_trace_error(MODULE, __LINE__, "Can't obtain file stats for file \"%s\" : %s",
                        path != nullptr ? path : file_name, strerror(errno));
        vos_mem_free(&path);
        return VOS_FS_FAILED;
    }
    vos_mem_free(&path);
    *type = S_ISDIR(status.stx_mode) ? VOS_FS_TYPE_DIRECTORY : VOS_FS_TYPE_FILE;
    *size = static_cast<uint32_t>(status.stx_size);
    *permissions = status.stx_mode & PERMISSION_BITS;
    *modified = static_cast<uint32_t>(status.stx_mtime.tv_sec);
    return VOS_FS_OK;
}

int vos_fs_get_file_size(const char *path, uint32_t *size)
{
    *size = 0;
    if (vos_fs_is_empty(path)) {
        vos_trace_error(MODULE, __LINE__, "Invalid filename");
        return VOS_FS_INVALID;
    }
    struct statx status = {};
    if (!look_at(path, &status)) {
        vos_trace_error(MODULE, __LINE__, "Can't obtain file stats for file \"%s\" : %s", path,
                        strerror(errno));
        return VOS_FS_FAILED;
    }
    if (S_ISDIR(status.stx_mode)) {
        vos_trace_error(MODULE, __LINE__, "%s is a directory", path);
        return VOS_FS_FAILED;
    }
    if (status.stx_size > UINT32_MAX) {
        vos_trace_error(MODULE, __LINE__, "Can't obtain file stats for file \"%s\" : %s", path,
                        strerror(EFBIG));
        return VOS_FS_FAILED;
    }
    *size = static_cast<uint32_t>(status.stx_size);
    return VOS_FS_OK;
}

bool vos_fs_is_same_file(const char *one, const char *other)
{
    struct statx first = {};
    struct statx second = {};
    return look_at(one, &first) && look_at(other, &second) && first.stx_ino == second.stx_ino &&
           first.stx_dev_major == second.stx_dev_major &&
           first.stx_dev_minor == second.stx_dev_minor;
}

int vos_fs_enter_rel_dir(const char *path, const char **file_name)
{
    if (file_name != nullptr) {
        *file_name = nullptr;
    }
    if (path == nullptr) {
        vos_trace_error(MODULE, __LINE__, "Invalid directory/file name");
        return VOS_FS_FAILED;
    }
    if (vos_fs_is_separator(path[0])) {
        vos_trace_error(MODULE, __LINE__, "Not a relative directory/file name");
        return VOS_FS_FAILED;
    }
    char *copy = vos_mem_strndup(path, UINT32_MAX);
    if (copy == nullptr) {
        vos_trace_error(MODULE, __LINE__, "Memory overflow");
        return VOS_FS_NO_MEMORY;
    }
    char *rest = nullptr;
    int result = enter_components(copy, &rest);
    if (result == VOS_FS_OK && file_name != nullptr) {
        if (*rest == '\0') {
            vos_trace_error(MODULE, __LINE__, "Filename length is 0");
            result = VOS_FS_INVALID;
        } else {
            *file_name = path + (rest - copy);
        }
    } else if (result == VOS_FS_OK && *rest != '\0') {
        result = enter_component(rest);
    }
    vos_mem_free(&copy);
    return result;
}

int vos_fs_enter_dir(const char *path)
{
    if (vos_fs_is_empty(path)) {
        vos_trace_error(MODULE, __LINE__, "Invalid directory name");
        return VOS_FS_FAILED;
    }
    if (!vos_fs_is_separator(path[0])) {
        vos_trace_error(MODULE, __LINE__, "Invalid directory name \"%s\"", path);
        return VOS_FS_FAILED;
    }
    if (enter_component("/") != VOS_FS_OK) {
        return VOS_FS_FAILED;
    }
    return vos_fs_enter_rel_dir(path + 1, nullptr);
}

int vos_fs_copy_file(const char *source, const char *destination)
{
    if (vos_fs_is_empty(source) || vos_fs_is_empty(destination)) {
        vos_trace_error(MODULE, __LINE__, "Invalid filename while copying file");
        return VOS_FS_INVALID;
    }
    vos_trace_debug(MODULE, __LINE__, "Copying file \"%s\" to \"%s\"", source, destination);
    int result = enter_directory_of(destination);
    if (result != VOS_FS_OK) {
        return result;
    }
    FILE *from = vos_fs_fopen(source, "rb");
    if (from == nullptr) {
        vos_trace_error(MODULE, __LINE__, "Can't open source file \"%s\" : %s", source,
                        strerror(errno));
        return VOS_FS_FAILED;
    }
    if (is_directory(source)) {
        vos_trace_error(MODULE, __LINE__, "Can't open source file \"%s\" : %s", source,
                        strerror(EISDIR));
        result = VOS_FS_FAILED;
    } else if (vos_fs_is_same_file(source, destination)) {
        vos_trace_error(MODULE, __LINE__, "Can't open dest file \"%s\" : %s", destination,
                        "it is the source file");
        result = VOS_FS_FAILED;
    } else {
        result = copy_stream(from, source, destination);
    }
    vos_fs_fclose(&from);
    return result;
}

int vos_fs_move_file(const char *source, const char *destination)
{
    if (vos_fs_is_empty(source) || vos_fs_is_empty(destination)) {
        vos_trace_error(MODULE, __LINE__, "Invalid filename while moving file");
        return VOS_FS_INVALID;
    }
    const int result = enter_directory_of(destination);
    if (result != VOS_FS_OK) {
        return result;
    }
    if (rename(source, destination) == 0) {
        return VOS_FS_OK;
    }
    vos_trace_debug(MODULE, __LINE__, "Can't move file from \"%s\" to \"%s\" : %s", source,
                    destination, strerror(errno));
    if (vos_fs_copy_file(source, destination) != VOS_FS_OK) {
        return VOS_FS_FAILED;
    }
    if (unlink(source) != 0) {
        vos_trace_error(MODULE, __LINE__, "Can't remove source file \"%s\" : %s", source,
                        strerror(errno));
        return VOS_FS_FAILED;
    }
    return VOS_FS_OK;
}

int vos_fs_move_rel_file(const char *source_directory, const char *name,
                         const char *destination_directory)
{
    return rel_file(source_directory, name, destination_directory, vos_fs_move_file);
}

int vos_fs_copy_rel_file(const char *source_directory, const char *name,
                         const char *destination_directory)
{
    return rel_file(source_directory, name, destination_directory, vos_fs_copy_file);
}

int vos_fs_remove(const char *path)
{
    return unlink(path);
}
