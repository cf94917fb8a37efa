/*
 * tn_file.h - files and directories: the library's only road to the file
 * system.
 *
 * Paths. Every path a caller hands in is zero-terminated UTF-8 and goes to
 * the system as it is; every name that comes back is the name's bytes as
 * they stand on disk. The separator is '/', a path is absolute when it
 * begins with '/', and the line end of text files is "\n".
 *
 * Handles. A tn_file is the system's file descriptor, -1 (TN_FILE_INVALID)
 * being the invalid handle. It is a plain value with no buffer of its own:
 * the caller owns it and ends it with tn_file_close. Every descriptor the
 * library opens is close-on-exec, so a host's child processes do not inherit
 * it. Files are never locked: other holders, the library itself included,
 * may go on reading, writing, renaming and removing a file that is open.
 * Positions and sizes are 64 bits throughout.
 *
 * Results. Operations return 1 for success and 0 for failure unless a
 * comment says otherwise. A failure carries no reason code of its own: the
 * system's reason stays in errno. Nothing is logged.
 */
#ifndef TARNEL_UTIL_TN_FILE_H
#define TARNEL_UTIL_TN_FILE_H

#include "tn_array.h"
#include "tn_types.h"

TN_BEGIN_DECLS

/* What tn_file_get_status and tn_file_get_fstatus report. */
typedef struct tn_file_status {
    tn_int32 directory; /* 16 for a directory, 0 for anything else */
    tn_time modified;   /* last change of the contents, whole seconds since
                           1970-01-01 00:00:00 UTC, parts of a second cut */
    tn_uint64 size;     /* bytes of a file; 0 for a directory */
} tn_file_status;

/* What tn_file_get_system_status reports, all in bytes. */
typedef struct tn_file_system_status {
    tn_uint64 total; /* size of the file system */
    tn_uint64 free;  /* free for the calling user (reserved blocks excluded) */
    tn_uint64 used;  /* total minus free */
} tn_file_system_status;

/* An open directory listing, declared and owned by the caller. */
typedef struct tn_dir {
    void *handle;        /* the system's directory stream, null when none */
    void *entry;         /* the system's current entry, null when none */
    tn_bool pending;     /* 1 while the entry read at opening is undelivered */
    tn_uchar_array name; /* the name last delivered, zero-terminated */
} tn_dir;

/* ---- Fixed values ---------------------------------------------------------- */

/* The path separator, '/'. */
TN_API tn_uchar tn_file_separator(void);
/* The constant "\n", the line end of text files. Never write through it. */
TN_API const tn_uchar *tn_file_line_feed(void);
/* The constant text of the nine characters that a portable file name must
 * not hold, in this order: '"', '<', '>', '|', ':', '*', '?', '/', '\\'.
 * Linux itself refuses only '/', but names built with this set survive on
 * any file system a host may share them to. */
TN_API const tn_uchar *tn_file_get_invalid_file_name_chars(void);

/* ---- Opening and closing ----------------------------------------------------
 * Each open stores the new handle in *file, or -1 on failure, and returns 1
 * when the handle is valid. None of them seeks: a file opened for writing
 * starts at position 0, its contents kept or not as the operation says. A
 * file created here gets the permissions 0666 less the process's umask.
 *
 *   operation                    access       must exist        contents
 *   tn_file_open_read            read         yes               kept
 *   tn_file_open_create          write        must not exist    new
 *   tn_file_open_truncate        write        no (created)      emptied
 *   tn_file_open_truncate_tmp    write        no (created)      emptied
 *   tn_file_open_write           write        no (created)      kept
 *   tn_file_open_readwrite       read, write  no (created)      kept
 *
 * tn_file_open_read also opens a directory (to read its status), and tells
 * the system that the file will be read from front to back.
 * tn_file_open_truncate_tmp is for files of passing use that a search index
 * should leave alone; Linux has no such marking, so it acts exactly as
 * tn_file_open_truncate. */
TN_API tn_bool tn_file_open_read(tn_file *file, const tn_uchar *path);
TN_API tn_bool tn_file_open_create(tn_file *file, const tn_uchar *path);
TN_API tn_bool tn_file_open_truncate(tn_file *file, const tn_uchar *path);
TN_API tn_bool tn_file_open_truncate_tmp(tn_file *file, const tn_uchar *path);
TN_API tn_bool tn_file_open_write(tn_file *file, const tn_uchar *path);
TN_API tn_bool tn_file_open_readwrite(tn_file *file, const tn_uchar *path);

/* Closes the handle. -1 returns 1 at once and closes nothing. */
TN_API tn_bool tn_file_close(tn_file file);

/* The standard input, output and error handles: 0, 1 and 2. Handles, not
 * results. */
TN_API tn_file tn_file_stdin(void);
TN_API tn_file tn_file_stdout(void);
TN_API tn_file tn_file_stderr(void);

/* ---- Transfer -------------------------------------------------------------- */

/* Reads up to n bytes into destination, resuming after signals. *count is
 * always written: the bytes read, or 0 on failure. A result of 1 with a
 * count of 0 is the end of the file, or of a pipe whose writers have all
 * closed it. A short count is no end: it may follow at a pipe, a device or
 * when n is more than is left. */
TN_API tn_bool tn_file_read(tn_file file, void *destination, tn_uint32 n, tn_uint32 *count);

/* Writes up to n bytes from source, resuming after signals. *count is always
 * written: the bytes written, or 0 on failure. A short count is no failure. */
TN_API tn_bool tn_file_write(tn_file file, const void *source, tn_uint32 n, tn_uint32 *count);

/* Writes until all n bytes are out; n of 0 returns 1 and calls nothing. A
 * failed write returns 0, and how much went out before it is not told. */
TN_API tn_bool tn_file_write_all(tn_file file, const void *source, tn_uint32 n);

/* Pushes the file's written data and metadata to the storage device. */
TN_API tn_bool tn_file_flush(tn_file file);

/* Moves to position, counted from the start of the file, and stores the
 * resulting position in *result unless result is null. A position beyond
 * the end is allowed: a later write there leaves a hole that reads as
 * zeros. A position above 2^63 - 1 fails. */
TN_API tn_bool tn_file_seek_set(tn_file file, tn_uint64 position, tn_uint64 *result);

/* Stores the current position in *position without moving it. */
TN_API tn_bool tn_file_seek_pos(tn_file file, tn_uint64 *position);

/* ---- Status ---------------------------------------------------------------- */

/* Reads the status of a file or directory by path, following symbolic
 * links, without opening it. */
TN_API tn_bool tn_file_get_status(const tn_uchar *path, tn_file_status *status);

/* The same for an open handle. */
TN_API tn_bool tn_file_get_fstatus(tn_file file, tn_file_status *status);

/* Sets the last-modified time of the file at path to *time, whole seconds
 * since the epoch; the access time stays. The file is opened for writing to
 * do so, so a missing path, a directory and a file the caller may not write
 * give 0, and so does a file that the caller neither owns nor has the
 * privilege to change. */
TN_API tn_bool tn_file_set_time(const tn_uchar *path, const tn_time *time);

/* 1 when path names something that is not a directory, 0 for a directory
 * or a path that does not exist. */
TN_API tn_bool tn_file_is_file(const tn_uchar *path);

/* 1 when path names a directory, 0 otherwise or when it does not exist. */
TN_API tn_bool tn_file_is_dir(const tn_uchar *path);

/* Reports the size and the free space of the file system that holds path,
 * a file or a directory. */
TN_API tn_bool tn_file_get_system_status(const tn_uchar *path, tn_file_system_status *status);

/* ---- Names and paths ------------------------------------------------------- */

/* Moves old_path to new_path, replacing a file already there. Where the two
 * lie on different file systems a regular file is copied (contents,
 * permissions and modification time) under a temporary name beside the
 * target, moved over the target, and then the source is removed; a failure
 * on that road leaves the source and any old target as they were. One
 * attempt. */
TN_API tn_bool tn_file_rename(const tn_uchar *old_path, const tn_uchar *new_path);

/* As tn_file_rename, retried while it fails: after a failed first attempt it
 * sleeps 300 milliseconds and tries again, and goes on so until an attempt
 * succeeds or wait milliseconds have passed since the first failure. The
 * first retry comes after 300 milliseconds whatever the wait (a wait of 1
 * still sleeps once); a wait of 0 is one attempt. Every failure is retried
 * alike, a missing source included, so a wait of 1000 that cannot succeed
 * makes five attempts and returns 0 after about 1200 milliseconds. */
TN_API tn_bool tn_file_rename_wait(const tn_uchar *old_path, const tn_uchar *new_path, tn_uint32 wait);

/* Removes a file; a directory is refused (see tn_dir_remove). */
TN_API tn_bool tn_file_remove(const tn_uchar *path);

/* 1 when path begins with '/', else 0 (an empty path included). */
TN_API tn_bool tn_file_is_absolute_path(const tn_uchar *path);

/* The suffix of the last name of path, without its dot: a pointer behind
 * the last '.' of path, or to the terminator (an empty string) when there
 * is no '.' or the last one stands in a directory name before the last '/'.
 * "a.txt" gives "txt", "a" and "a." give "", "d.x/a" gives "" and "d.x/a.b"
 * gives "b". Never null. */
TN_API const tn_uchar *tn_file_get_suffix(const tn_uchar *path);

/* Reads the file's first line into buffer, which holds size bytes, with one
 * read of up to size bytes. The line ends at the first carriage return or
 * line feed, or with the data; it is stored without its end and terminated.
 * An empty file gives an empty string. Returns 0 when the file cannot be
 * opened or read, and when size bytes came without a line end, as then no
 * room is left for the terminator. */
TN_API tn_bool tn_file_get_first_line(const tn_uchar *path, tn_uchar *buffer, tn_uint32 size);

/* ---- Directories ------------------------------------------------------------ */

/* Makes one directory, with the permissions 0777 less the umask; the parent
 * must exist. */
TN_API tn_bool tn_dir_make(const tn_uchar *path);

/* Removes an empty directory. */
TN_API tn_bool tn_dir_remove(const tn_uchar *path);

/* Opens a listing of the directory at path, with or without a trailing '/'.
 * An empty path returns 0 with the record untouched. On 0 there is nothing
 * to close; after 1 the caller ends the listing with tn_dir_close, once. */
TN_API tn_bool tn_dir_open(tn_dir *dir, const tn_uchar *path);

/* The next name of the listing, or null at its end or on failure. Every
 * entry is delivered, hidden ones and subdirectories included, in the file
 * system's order and without type: a caller joins the path and asks
 * tn_file_is_dir. Only "." and ".." are skipped. The name is the record's
 * and stays valid until the next tn_dir_read or tn_dir_close. */
TN_API const tn_uchar *tn_dir_read(tn_dir *dir);

/* Frees the name and ends the listing. Returns 1 when the system closed it
 * cleanly. */
TN_API tn_bool tn_dir_close(tn_dir *dir);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_FILE_H */
