// The part of vos_trace that keeps the lines in files.

#include "vos_trace_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "vos_fs.h"
#include "vos_fs_path.h"
#include "vos_mem.h"
#include "vos_str.h"
#include "vos_util_linux.h"

namespace
{

constexpr size_t PATH_ROOM = 1024;
constexpr size_t NAME_ROOM = sizeof "-YYYYMMDD-hhmmss";      // behind the base name
constexpr size_t UNIQUE_ROOM = 1 + VOS_FS_UNIQUE_DIGITS + 1; // "_xxxx" and a NUL
constexpr uint32_t BASE_NAME_MAX = 32;
constexpr int PURGE_SCANS_MAX = 100;
constexpr int UNIQUE_DRAWS_MAX = 100'000; // there are fewer names to draw

struct TraceFiles {
    VosMutex *lock;
    uint32_t file_count = 10;     // 0: a file a day
    uint32_t file_size = 100'000; // bytes
    char base_name[BASE_NAME_MAX + 1] = "traceagent";
    uint32_t base_name_length;
    char *root; // this and the next two end in '/'
    char *subdir;
    char *directory;
    bool directory_in_use; // false: standard output only
    char daily_path[PATH_ROOM];
    tm daily_date;    // when the daily file was opened
    uint32_t written; // bytes that stand in the file
    bool failure_told;
    bool by_day; // how the file was opened
    FILE *file;
};

struct OpenNames {
    char file[PATH_ROOM];
    char entry[PATH_ROOM];
    char oldest[PATH_ROOM];
};

TraceFiles files;
thread_local bool at_work; // this thread holds the lock

struct WorkGuard {
    WorkGuard() : lock(files.lock) { at_work = true; }
    ~WorkGuard() { at_work = false; }
    WorkGuard(const WorkGuard &) = delete;
    WorkGuard &operator=(const WorkGuard &) = delete;

    VosMutexGuard lock;
};

void forget_directory()
{
    files.directory_in_use = false;
}

void close_file()
{
    vos_fs_fclose(&files.file);
}

void open_stream(const char *path)
{
    files.file = vos_fs_fopen(path, "wb");
    if (files.file == nullptr) {
        vos_trace_print("trace file open error : %s\n", strerror(errno));
        forget_directory();
        return;
    }
    // A line is one write: nothing waits in a buffer, and a failed one can be taken back.
    setvbuf(files.file, nullptr, _IONBF, 0);
    files.failure_told = false;
}

bool is_trace_file(const char *path, uint32_t *modified)
{
    struct statx status = {};
    if (statx(AT_FDCWD, path, 0, STATX_TYPE | STATX_MTIME, &status) != 0 ||
        !S_ISREG(status.stx_mode)) {
        return false;
    }
    *modified = static_cast<uint32_t>(status.stx_mtime.tv_sec);
    return true;
}

// Counts the trace files; names->oldest is empty when none is older than the end of time.
uint32_t scan_directory(OpenNames *names)
{
    uint32_t count = 0;
    uint32_t oldest = UINT32_MAX;
    names->oldest[0] = '\0';
    VosDir *directory = vos_fs_open_dir(files.directory);
    while (directory != nullptr) {
        const char *name = vos_fs_read_dir(directory);
        if (name == nullptr) {
            break;
        }
        if (strncmp(name, files.base_name, files.base_name_length) != 0) {
            continue;
        }
        const int length = snprintf(names->entry, PATH_ROOM, "%s%s", files.directory, name);
        uint32_t modified = 0;
        // A path that was cut would be another file's.
        if (static_cast<size_t>(length) < PATH_ROOM && is_trace_file(names->entry, &modified)) {
            ++count;
            if (modified < oldest) {
                oldest = modified;
                memcpy(names->oldest, names->entry, PATH_ROOM);
            }
        }
    }
    vos_fs_close_dir(&directory);
    return count;
}

// Makes room for one more file. A file that can't be deleted is found again, until the scans are
// spent.
void purge(OpenNames *names)
{
    uint32_t count = files.file_count;
    for (int scan = 0; scan < PURGE_SCANS_MAX && count >= files.file_count; ++scan) {
        count = scan_directory(names);
        if (count >= files.file_count && names->oldest[0] != '\0') {
            vos_fs_remove(names->oldest);
            --count;
        }
    }
}

// Gives the name digits that no file has yet, at the cost of its last characters when the path is
// full; false when there are none left.
bool make_unique(char *name)
{
    if (!vos_fs_can_be_read(name)) {
        return true;
    }
    char *digits = name + std::min(strlen(name), PATH_ROOM - UNIQUE_ROOM);
    *digits++ = '_';
    digits[VOS_FS_UNIQUE_DIGITS] = '\0';
    for (int draw = 0; draw < UNIQUE_DRAWS_MAX; ++draw) {
        vos_fs_write_unique_digits(digits);
        if (!vos_fs_can_be_read(name)) {
            return true;
        }
    }
    return false;
}

// Without memory for the names there is no file this time; the next line tries again.
void open_next_file()
{
    OpenNames *names = nullptr;
    vos_mem_calloc(&names, sizeof *names);
    if (names == nullptr) {
        return;
    }
    purge(names);
    const tm utc = vos_trace_utc_now();
    snprintf(names->file, PATH_ROOM, "%s%s-%04d%02d%02d-%02d%02d%02d", files.directory,
             files.base_name, utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour,
             utc.tm_min, utc.tm_sec);
    if (make_unique(names->file)) {
        open_stream(names->file);
    }
    vos_mem_free(&names);
}

void open_file()
{
    files.written = 0;
    if (!files.directory_in_use) {
        return;
    }
    files.by_day = files.file_count == 0;
    if (files.by_day) {
        files.daily_date = vos_trace_utc_now();
        open_stream(files.daily_path);
    } else {
        open_next_file();
    }
}

void archive_daily_file()
{
    char archive[PATH_ROOM];
    const tm &date = files.daily_date;
    snprintf(archive, sizeof archive, "%s%s-%04d%02d%02d.txt", files.directory, files.base_name,
             date.tm_year + 1900, date.tm_mon + 1, date.tm_mday);
    if (rename(files.daily_path, archive) != 0) {
        vos_trace_print("Can't move file from \"%s\" to \"%s\" : %s\r\n", files.daily_path, archive,
                        strerror(errno));
    }
}

// A line that was built before midnight may come behind the first one of the new day; it joins it.
bool day_has_passed(int day)
{
    return files.by_day && day != files.daily_date.tm_mday &&
           vos_trace_utc_now().tm_mday != files.daily_date.tm_mday;
}

// Takes back what was stored of a line that did not go into the file whole, so that the next one,
// when there is room again, begins a line of its own. Returns the bytes of it that are left.
size_t take_back(size_t stored)
{
    const int error = errno;
    const int descriptor = fileno(files.file);
    const off_t start = lseek(descriptor, 0, SEEK_CUR) - static_cast<off_t>(stored);
    const bool whole = ftruncate(descriptor, start) == 0 && lseek(descriptor, start, SEEK_SET) >= 0;
    clearerr(files.file);
    if (!files.failure_told) {
        vos_trace_print("trace file write error : %s%s\n", strerror(error),
                        whole ? "" : ", a line is cut");
        files.failure_told = true;
    }
    return whole ? 0 : stored;
}

// Counts what was stored alone: on a full disk there is nothing to be had from another file.
void append_line(const char *text, size_t length)
{
    size_t stored = fwrite(text, 1, length, files.file);
    if (stored != length) {
        stored = take_back(stored);
    }
    files.written += std::min(static_cast<uint32_t>(stored), UINT32_MAX - files.written);
}

void write_line(const char *text, size_t length, int day)
{
    if (at_work) {
        return; // a trace out of the work on the files themselves
    }
    const WorkGuard guard;
    if (files.file != nullptr && day_has_passed(day)) {
        close_file();
        archive_daily_file();
    }
    if (files.file == nullptr) {
        open_file();
    }
    if (files.file == nullptr) {
        return;
    }
    append_line(text, length);
    if (!files.by_day && files.written >= files.file_size) {
        close_file();
        open_file();
    }
}

void close_at_exit()
{
    if (!at_work) {
        vos_trace_close(); // with the directory forgotten no line of another thread opens it again
    }
}

constexpr VosTraceFiles FILE_SIDE = {write_line, close_at_exit};

char *with_slash(const char *name)
{
    const size_t length = strlen(name);
    return vos_fs_append(name, length != 0 && name[length - 1] == '/' ? "" : "/");
}

// Every path there has room: none is ever cut, which could make it another file's.
bool fits(const char *directory, uint32_t base_name_length)
{
    return strlen(directory) + base_name_length + NAME_ROOM <= PATH_ROOM;
}

// Takes over the names, or leaves everything as it was.
bool set_directory(const char *root, const char *subdir)
{
    char *new_root = with_slash(root);
    char *new_subdir = with_slash(subdir);
    char *directory = new_root != nullptr && new_subdir != nullptr
                          ? vos_fs_append(new_root, new_subdir)
                          : nullptr;
    const bool complete = directory != nullptr && fits(directory, files.base_name_length);
    if (complete) {
        std::replace(directory, directory + strlen(directory), '\\', '/'); // as listing it does
        std::swap(files.root, new_root);
        std::swap(files.subdir, new_subdir);
        std::swap(files.directory, directory);
        files.directory_in_use = true;
    }
    vos_mem_free(&new_root);
    vos_mem_free(&new_subdir);
    vos_mem_free(&directory);
    return complete;
}

// A file that is kept by size stays open until it is full. One of the day stays for as long as its
// path does; under another one it could not be renamed when the day is over.
void set_daily_path()
{
    char path[PATH_ROOM];
    snprintf(path, sizeof path, "%s/%s.txt", files.directory, files.base_name);
    const bool by_day = files.file_count == 0;
    if (files.by_day != by_day || (by_day && strcmp(path, files.daily_path) != 0)) {
        close_file();
    }
    memcpy(files.daily_path, path, sizeof path);
}

} // namespace

void vos_trace_init(const char *root, const char *subdir, const char *base_name)
{
    if (files.lock == nullptr) {
        files.lock = vos_mutex_create("trace");
    }
    const WorkGuard guard;
    const uint32_t length = vos_mem_strnlen(base_name, BASE_NAME_MAX + 1);
    const bool has_room = !files.directory_in_use || fits(files.directory, length);
    if (length >= 1 && length <= BASE_NAME_MAX && has_room) {
        vos_str_copy(base_name, files.base_name, sizeof files.base_name);
    }
    files.base_name_length = static_cast<uint32_t>(strlen(files.base_name));
    const bool given = root != nullptr && subdir != nullptr && files.lock != nullptr;
    if (given && access(root, F_OK) == 0 && set_directory(root, subdir)) {
        mkdir(files.directory, 0777);
        set_daily_path();
        vos_trace_set_files(&FILE_SIDE);
    }
    if (!files.directory_in_use) {
        vos_trace_print("trace path invalid, use stdout\n");
    }
}

void vos_trace_set_file_count(uint32_t count)
{
    const WorkGuard guard;
    files.file_count = count;
}

void vos_trace_set_file_size(uint32_t size)
{
    const WorkGuard guard;
    files.file_size = size;
}

void vos_trace_flush()
{
    const WorkGuard guard;
    if (files.file != nullptr) {
        fflush(files.file);
    }
}

void vos_trace_close()
{
    const WorkGuard guard;
    close_file();
    forget_directory();
}

void vos_trace_new_file()
{
    const WorkGuard guard;
    if (files.file != nullptr) {
        close_file();
        if (files.by_day) {
            archive_daily_file();
        }
    }
    open_file();
}

const char *vos_trace_get_dir()
{
    const WorkGuard guard;
    return files.directory_in_use ? files.directory : nullptr;
}

const char *vos_trace_get_root()
{
    const WorkGuard guard;
    return files.root;
}

const char *vos_trace_get_subdir()
{
    const WorkGuard guard;
    return files.subdir;
}
