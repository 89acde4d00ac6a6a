// The part of vos_fs that works on path strings and lists directories.

#include "vos_fs_path.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "vos_fs.h"
#include "vos_mem.h"
#include "vos_trace.h"

namespace
{

constexpr const char *MODULE = VOS_FS_MODULE;

// A zeroed string with room for both sizes, a few characters more and the NUL. Null when the sizes
// don't fit into 32 bits together, or without memory.
char *new_string(size_t one, size_t other)
{
    char *text = nullptr;
    if (one <= UINT32_MAX - 16 && other <= UINT32_MAX - 16 - one) {
        vos_mem_calloc(&text, static_cast<uint32_t>(one + other + 16));
    }
    return text;
}

// Writes the text and returns where its NUL stands.
char *append(char *to, const char *text)
{
    const size_t length = strlen(text);
    memcpy(to, text, length + 1);
    return to + length;
}

char *copy_with_slashes(char *to, const char *from)
{
    for (; *from != '\0'; ++from) {
        *to++ = *from == '\\' ? '/' : *from;
    }
    return to;
}

void append_extension(char *to, const char *extension)
{
    if (extension != nullptr) {
        append(append(to, "."), extension);
    }
}

} // namespace

uint32_t vos_fs_directory_length(const char *path)
{
    uint32_t length = 0;
    for (uint32_t i = 0; path[i] != '\0'; ++i) {
        if (vos_fs_is_separator(path[i])) {
            length = i + 1;
        }
    }
    return length;
}

char *vos_fs_append(const char *text, const char *suffix)
{
    char *path = new_string(strlen(text), strlen(suffix));
    if (path != nullptr) {
        append(append(path, text), suffix);
    }
    return path;
}

char *vos_fs_join(const char *directory, const char *name)
{
    char *path = new_string(strlen(directory), strlen(name));
    if (path != nullptr) {
        char *end = append(path, directory);
        end = append(end, vos_fs_is_separator(end[-1]) ? "" : "/");
        append(end, name);
    }
    return path;
}

bool vos_fs_can_be_read(const char *path)
{
    FILE *file = vos_fs_fopen(path, "rb");
    return file != nullptr && vos_fs_fclose(&file) == VOS_FS_OK;
}

void vos_fs_write_unique_digits(char *to)
{
    char digits[2 * sizeof(int) + 1];
    snprintf(digits, sizeof digits, "%04x", static_cast<unsigned>(rand())); // NOLINT(cert-msc30-c)
    memcpy(to, digits, VOS_FS_UNIQUE_DIGITS);
}

char *vos_fs_build_path(const char *directory, const char *name, bool trailing_separator)
{
    if (directory == nullptr && name == nullptr) {
        return nullptr;
    }
    directory = directory != nullptr ? directory : "";
    name = name != nullptr ? name : "";
    char *path = new_string(strlen(directory), strlen(name));
    if (path == nullptr) {
        return nullptr;
    }
    char *end = copy_with_slashes(path, directory);
    if (name[0] != '\0' && end != path) {
        const bool ended = end[-1] == '/';
        const bool begun = vos_fs_is_separator(name[0]);
        if (ended && begun) {
            ++name;
        } else if (!ended && !begun) {
            *end++ = '/';
        }
    }
    end = copy_with_slashes(end, name);
    const bool ended = end != path && end[-1] == '/';
    if (trailing_separator && !ended) {
        *end = '/';
    } else if (!trailing_separator && ended) {
        end[-1] = '\0';
    }
    return path;
}

int vos_fs_make_unique_name(const char *name, const char *extension, char **result, bool randomise)
{
    *result = nullptr;
    name = name != nullptr ? name : "";
    const char *dot = strrchr(name, '.');
    const size_t length = dot != nullptr ? static_cast<size_t>(dot - name) : strlen(name);
    if (length == 0) {
        vos_trace_error(MODULE, __LINE__, "Invalid filename");
        return VOS_FS_INVALID;
    }
    char *candidate = new_string(length, extension != nullptr ? strlen(extension) : 0);
    if (candidate == nullptr) {
        return VOS_FS_NO_MEMORY;
    }
    memcpy(candidate, name, length); // NOLINT(bugprone-not-null-terminated-result): zeroed block
    append_extension(candidate + length, extension);
    if (randomise && vos_fs_can_be_read(candidate)) {
        candidate[length] = '_';
        append_extension(candidate + length + 1 + VOS_FS_UNIQUE_DIGITS, extension);
        do {
            vos_fs_write_unique_digits(candidate + length + 1);
        } while (vos_fs_can_be_read(candidate));
    }
    *result = candidate;
    return VOS_FS_OK;
}

int vos_fs_replace_file_name(const char *path, const char *new_name, char **result)
{
    *result = nullptr;
    if (vos_fs_is_empty(path) || new_name == nullptr) {
        vos_trace_error(MODULE, __LINE__, "Invalid filename");
        return VOS_FS_INVALID;
    }
    const uint32_t length = vos_fs_directory_length(path);
    *result = new_string(length, strlen(new_name));
    if (*result == nullptr) {
        return VOS_FS_NO_MEMORY;
    }
    memcpy(*result, path, length);
    append(*result + length, new_name);
    return VOS_FS_OK;
}

int vos_fs_split_path_block(const char *path, char **result)
{
    *result = nullptr;
    if (vos_fs_is_empty(path)) {
        vos_trace_error(MODULE, __LINE__, "Invalid filename");
        return VOS_FS_INVALID;
    }
    const uint32_t length = vos_fs_directory_length(path);
    *result = new_string(strlen(path), 0);
    if (*result == nullptr) {
        return VOS_FS_NO_MEMORY;
    }
    memcpy(*result, path, length);
    append(*result + length + 1, path + length);
    return VOS_FS_OK;
}

int vos_fs_split_path(const char *path, char **directory, char **name)
{
    if (directory != nullptr) {
        *directory = nullptr;
    }
    *name = nullptr;
    const uint32_t length = path != nullptr ? vos_fs_directory_length(path) : 0;
    if (length == 0 || path[length] == '\0') {
        vos_trace_error(MODULE, __LINE__, "Invalid filename");
        return VOS_FS_INVALID;
    }
    *name = vos_mem_strndup(path + length, UINT32_MAX);
    if (directory != nullptr && *name != nullptr) {
        *directory = vos_mem_strndup(path, length);
        if (*directory == nullptr) {
            vos_mem_free(name);
        }
    }
    return *name != nullptr ? VOS_FS_OK : VOS_FS_NO_MEMORY;
}

VosDir *vos_fs_open_dir(char *path)
{
    VosDir *directory = nullptr;
    vos_mem_alloc(&directory, sizeof *directory);
    if (directory == nullptr) {
        return nullptr;
    }
    std::replace(path, path + strlen(path), '\\', '/');
    directory->stream = opendir(path);
    if (directory->stream == nullptr) {
        vos_mem_free(&directory);
    }
    return directory;
}

const char *vos_fs_read_dir_entry(VosDir *directory, uint32_t *type)
{
    *type = 0;
    const dirent *entry =
        directory != nullptr && directory->stream != nullptr ? readdir(directory->stream) : nullptr;
    if (entry == nullptr) {
        return nullptr;
    }
    *type = entry->d_type;
    return entry->d_name;
}

const char *vos_fs_read_dir(VosDir *directory)
{
    uint32_t type = 0;
    return vos_fs_read_dir_entry(directory, &type);
}

void vos_fs_close_dir(VosDir **directory)
{
    if (*directory != nullptr) {
        closedir((*directory)->stream);
        vos_mem_free(directory);
    }
}
