#include <tarnel_util/tn_file.h>
#include <tarnel_util/tn_uchar_array.h>

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char *text(const tn_uchar *path) { return reinterpret_cast<const char *>(path); }

DIR *stream(const tn_dir *dir) { return static_cast<DIR *>(dir->handle); }

bool is_self_or_parent(const char *name)
{
    return name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0));
}

// Opened by hand rather than with opendir so that close-on-exec is set
// here, not left to the C library.
DIR *open_stream(const tn_uchar *path)
{
    int fd = ::open(text(path), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return nullptr;
    DIR *opened = fdopendir(fd);
    if (!opened) close(fd);
    return opened;
}

// readdir gives null both at the end and on failure; only errno tells.
bool read_entry(tn_dir *dir)
{
    errno = 0;
    dir->entry = readdir(stream(dir));
    return dir->entry || errno == 0;
}

const dirent *next_entry(tn_dir *dir)
{
    if (dir->pending) {
        dir->pending = 0;
        return static_cast<const dirent *>(dir->entry);
    }
    if (!dir->handle) return nullptr;
    read_entry(dir);
    return static_cast<const dirent *>(dir->entry);
}

} // namespace

tn_bool tn_dir_make(const tn_uchar *path) { return mkdir(text(path), 0777) == 0; }

tn_bool tn_dir_remove(const tn_uchar *path) { return rmdir(text(path)) == 0; }

// The first entry is read at once, so a listing that cannot be read fails
// here, where the caller still has nothing to close.
tn_bool tn_dir_open(tn_dir *dir, const tn_uchar *path)
{
    if (!path[0]) return 0;
    tn_array_init(&dir->name, 1);
    dir->entry = nullptr;
    dir->pending = 0;
    dir->handle = open_stream(path);
    if (!dir->handle) return 0;
    if (!read_entry(dir)) {
        closedir(stream(dir));
        dir->handle = nullptr;
        return 0;
    }
    dir->pending = dir->entry != nullptr;
    return 1;
}

const tn_uchar *tn_dir_read(tn_dir *dir)
{
    tn_array_truncate(&dir->name);
    const dirent *entry;
    do {
        entry = next_entry(dir);
        if (!entry) return nullptr;
    } while (is_self_or_parent(entry->d_name));
    // A name that cannot be stored ends the listing: the failed array
    // refuses every later name too, so no entry is silently skipped.
    if (!tn_uchar_array_cats0(&dir->name, reinterpret_cast<const tn_uchar *>(entry->d_name))) {
        tn_array_truncate(&dir->name);
        return nullptr;
    }
    return static_cast<const tn_uchar *>(tn_array_get(&dir->name));
}

tn_bool tn_dir_close(tn_dir *dir)
{
    tn_array_free(&dir->name);
    DIR *open = stream(dir);
    dir->handle = nullptr;
    dir->entry = nullptr;
    dir->pending = 0;
    return open && closedir(open) == 0;
}
