#include <tarnel_util/tn_alloc.h>
#include <tarnel_util/tn_file.h>
#include <tarnel_util/tn_str.h>
#include <tarnel_util/tn_time.h>

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

constexpr tn_uchar separator = '/';
constexpr tn_uchar line_feed[] = "\n";
constexpr tn_uchar invalid_name_chars[] = "\"<>|:*?/\\";

// The value that tells a directory in tn_file_status, kept as the bit that
// marks directories among file attributes elsewhere, so hosts that test it
// as a bit keep working.
constexpr tn_int32 directory_mark = 16;

constexpr tn_uint32 rename_retry_ms = 300;
constexpr tn_uint32 copy_block = 64 * 1024;
constexpr tn_uchar temp_name[] = ".tn_rename_XXXXXX";

const char *text(const tn_uchar *path) { return reinterpret_cast<const char *>(path); }

// O_NOCTTY: opening a terminal must not make it the host's controlling one.
int open_fd(const tn_uchar *path, int flags)
{
    int fd;
    do {
        fd = ::open(text(path), flags | O_CLOEXEC | O_NOCTTY, 0666);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

tn_bool open_into(tn_file *file, const tn_uchar *path, int flags)
{
    *file = open_fd(path, flags);
    return *file >= 0;
}

void fill_status(const struct stat &st, tn_file_status *status)
{
    bool directory = S_ISDIR(st.st_mode);
    status->directory = directory ? directory_mark : 0;
    status->modified = st.st_mtim.tv_sec;
    // A directory's st_size is file-system bookkeeping, not content.
    status->size = directory ? 0 : static_cast<tn_uint64>(st.st_size);
}

// The directory part of path with its '/', and the temporary name behind
// it; mkostemp fills in the X's.
char *temp_template_beside(const tn_uchar *path)
{
    tn_uint32 length = tn_str_len(path);
    tn_uint32 slash = tn_str_rchr(path, separator);
    tn_uint32 keep = slash == length ? 0 : slash + 1;
    auto *name = static_cast<tn_uchar *>(tn_alloc(keep + sizeof temp_name));
    if (!name) return nullptr;
    for (tn_uint32 i = 0; i < keep; ++i) name[i] = path[i];
    tn_str_copy(name + keep, temp_name);
    return reinterpret_cast<char *>(name);
}

bool copy_contents(int in, int out)
{
    auto *block = static_cast<tn_uchar *>(tn_alloc(copy_block));
    if (!block) return false;
    tn_uint32 got = 0;
    bool ok;
    while ((ok = tn_file_read(in, block, copy_block, &got)) && got) {
        if (!(ok = tn_file_write_all(out, block, got))) break;
    }
    tn_alloc_free(block);
    return ok;
}

// The copy keeps what a move would have kept: contents, permissions and the
// modification time.
bool copy_into(int in, const struct stat &st, int out)
{
    const timespec times[2] = {st.st_atim, st.st_mtim};
    return copy_contents(in, out) && fchmod(out, st.st_mode & 07777) == 0 && futimens(out, times) == 0;
}

// A copy under a temporary name, then moved over the target: a failure
// halfway leaves any old target whole and no partial file behind.
bool copy_across(const tn_uchar *from, const tn_uchar *to)
{
    int in = open_fd(from, O_RDONLY);
    if (in < 0) return false;
    struct stat st;
    char *temp = nullptr;
    int out = -1;
    if (fstat(in, &st) == 0 && S_ISREG(st.st_mode) && (temp = temp_template_beside(to)))
        out = mkostemp(temp, O_CLOEXEC);
    bool ok = out >= 0 && copy_into(in, st, out);
    if (out >= 0 && close(out) != 0 && errno != EINTR) ok = false;
    if (ok) ok = ::rename(temp, text(to)) == 0;
    if (!ok && out >= 0) unlink(temp);
    tn_alloc_free(temp);
    close(in);
    // Once the target is in place the move has happened; a source that
    // cannot be removed stays behind rather than failing the move.
    if (ok) unlink(text(from));
    return ok;
}

bool move_once(const tn_uchar *from, const tn_uchar *to)
{
    if (::rename(text(from), text(to)) == 0) return true;
    return errno == EXDEV && copy_across(from, to);
}

} // namespace

tn_uchar tn_file_separator(void) { return separator; }

const tn_uchar *tn_file_line_feed(void) { return line_feed; }

const tn_uchar *tn_file_get_invalid_file_name_chars(void) { return invalid_name_chars; }

tn_bool tn_file_open_read(tn_file *file, const tn_uchar *path)
{
    if (!open_into(file, path, O_RDONLY)) return 0;
    // Only a hint for read-ahead; pipes and directories refuse it harmlessly.
    posix_fadvise(*file, 0, 0, POSIX_FADV_SEQUENTIAL);
    return 1;
}

tn_bool tn_file_open_create(tn_file *file, const tn_uchar *path)
{
    return open_into(file, path, O_WRONLY | O_CREAT | O_EXCL);
}

tn_bool tn_file_open_truncate(tn_file *file, const tn_uchar *path)
{
    return open_into(file, path, O_WRONLY | O_CREAT | O_TRUNC);
}

// No Linux file system has a "keep out of the search index" mark to set.
tn_bool tn_file_open_truncate_tmp(tn_file *file, const tn_uchar *path) { return tn_file_open_truncate(file, path); }

tn_bool tn_file_open_write(tn_file *file, const tn_uchar *path) { return open_into(file, path, O_WRONLY | O_CREAT); }

tn_bool tn_file_open_readwrite(tn_file *file, const tn_uchar *path) { return open_into(file, path, O_RDWR | O_CREAT); }

tn_bool tn_file_close(tn_file file)
{
    if (file == TN_FILE_INVALID) return 1;
    // Linux releases the descriptor even when close reports EINTR, so that
    // is no failure and must not be retried.
    return close(file) == 0 || errno == EINTR;
}

tn_file tn_file_stdin(void) { return STDIN_FILENO; }

tn_file tn_file_stdout(void) { return STDOUT_FILENO; }

tn_file tn_file_stderr(void) { return STDERR_FILENO; }

tn_bool tn_file_read(tn_file file, void *destination, tn_uint32 n, tn_uint32 *count)
{
    ssize_t got;
    do {
        got = ::read(file, destination, n);
    } while (got < 0 && errno == EINTR);
    *count = got < 0 ? 0 : static_cast<tn_uint32>(got);
    return got >= 0;
}

tn_bool tn_file_write(tn_file file, const void *source, tn_uint32 n, tn_uint32 *count)
{
    ssize_t put;
    do {
        put = ::write(file, source, n);
    } while (put < 0 && errno == EINTR);
    *count = put < 0 ? 0 : static_cast<tn_uint32>(put);
    return put >= 0;
}

tn_bool tn_file_write_all(tn_file file, const void *source, tn_uint32 n)
{
    const auto *rest = static_cast<const tn_uchar *>(source);
    while (n) {
        tn_uint32 put = 0;
        // A write that takes nothing would otherwise spin here for ever.
        if (!tn_file_write(file, rest, n, &put) || !put) return 0;
        rest += put;
        n -= put;
    }
    return 1;
}

tn_bool tn_file_flush(tn_file file) { return fsync(file) == 0; }

tn_bool tn_file_seek_set(tn_file file, tn_uint64 position, tn_uint64 *result)
{
    if (position > static_cast<tn_uint64>(INT64_MAX)) {
        errno = EINVAL;
        return 0;
    }
    off_t at = lseek(file, static_cast<off_t>(position), SEEK_SET);
    if (at < 0) return 0;
    if (result) *result = static_cast<tn_uint64>(at);
    return 1;
}

tn_bool tn_file_seek_pos(tn_file file, tn_uint64 *position)
{
    off_t at = lseek(file, 0, SEEK_CUR);
    if (at < 0) return 0;
    *position = static_cast<tn_uint64>(at);
    return 1;
}

tn_bool tn_file_get_status(const tn_uchar *path, tn_file_status *status)
{
    struct stat st;
    if (stat(text(path), &st) != 0) return 0;
    fill_status(st, status);
    return 1;
}

tn_bool tn_file_get_fstatus(tn_file file, tn_file_status *status)
{
    struct stat st;
    if (fstat(file, &st) != 0) return 0;
    fill_status(st, status);
    return 1;
}

// The time goes through a handle opened for writing, so what does not open
// so (a directory, a file the caller may not write) is refused, not changed.
// O_NONBLOCK: a FIFO with no reader must fail here rather than block.
tn_bool tn_file_set_time(const tn_uchar *path, const tn_time *time)
{
    int fd = open_fd(path, O_WRONLY | O_NONBLOCK);
    if (fd < 0) return 0;
    const timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(*time), 0}};
    bool set = futimens(fd, times) == 0;
    close(fd);
    return set;
}

tn_bool tn_file_is_file(const tn_uchar *path)
{
    tn_file_status status;
    return tn_file_get_status(path, &status) && !status.directory;
}

tn_bool tn_file_is_dir(const tn_uchar *path)
{
    tn_file_status status;
    return tn_file_get_status(path, &status) && status.directory;
}

// statvfs answers for the file system of any path, a file's as well as a
// directory's, so the path goes in whole.
tn_bool tn_file_get_system_status(const tn_uchar *path, tn_file_system_status *status)
{
    struct statvfs vfs;
    if (statvfs(text(path), &vfs) != 0) return 0;
    tn_uint64 unit = vfs.f_frsize;
    status->total = static_cast<tn_uint64>(vfs.f_blocks) * unit;
    status->free = static_cast<tn_uint64>(vfs.f_bavail) * unit;
    status->used = status->total - status->free;
    return 1;
}

tn_bool tn_file_rename(const tn_uchar *old_path, const tn_uchar *new_path) { return move_once(old_path, new_path); }

// The first failure is not looked at: a file still held or not yet there is
// as likely to clear as any other, so everything is retried alike.
tn_bool tn_file_rename_wait(const tn_uchar *old_path, const tn_uchar *new_path, tn_uint32 wait)
{
    if (move_once(old_path, new_path)) return 1;
    if (!wait) return 0;
    tn_time start;
    tn_time now;
    tn_time_msec(&start);
    do {
        tn_thread_sleep(rename_retry_ms);
        if (move_once(old_path, new_path)) return 1;
        tn_time_msec(&now);
    } while (now < start + static_cast<tn_time>(wait));
    return 0;
}

tn_bool tn_file_remove(const tn_uchar *path) { return unlink(text(path)) == 0; }

tn_bool tn_file_is_absolute_path(const tn_uchar *path) { return path[0] == separator; }

const tn_uchar *tn_file_get_suffix(const tn_uchar *path)
{
    tn_uint32 length = tn_str_len(path);
    tn_uint32 dot = tn_str_rchr(path, '.');
    if (dot == length) return path + length;
    tn_uint32 slash = tn_str_rchr(path, separator);
    if (slash != length && dot < slash) return path + length;
    return path + dot + 1;
}

tn_bool tn_file_get_first_line(const tn_uchar *path, tn_uchar *buffer, tn_uint32 size)
{
    tn_file file;
    if (!tn_file_open_read(&file, path)) return 0;
    tn_uint32 count = 0;
    tn_bool read = tn_file_read(file, buffer, size, &count);
    tn_file_close(file);
    if (!read) return 0;
    tn_uint32 end = 0;
    while (end < count && buffer[end] != '\r' && buffer[end] != '\n') ++end;
    if (end == size) return 0;
    buffer[end] = 0;
    return 1;
}
