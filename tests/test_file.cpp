#include <gtest/gtest.h>

#include <tarnel_util/tn_file.h>
#include <tarnel_util/tn_time.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "tn_test_alloc.h"

namespace fs = std::filesystem;

namespace {

const tn_uchar *u(const std::string &s) { return reinterpret_cast<const tn_uchar *>(s.c_str()); }

std::string make_temp_dir(const char *base)
{
    std::string name = std::string(base) + "/tn_file_XXXXXX";
    return mkdtemp(name.data()) ? name : std::string();
}

std::string slurp(const std::string &path)
{
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

class FileTest : public tn_test::AllocTest {
protected:
    void SetUp() override
    {
        AllocTest::SetUp();
        dir = make_temp_dir("/tmp");
        ASSERT_FALSE(dir.empty());
    }
    void TearDown() override
    {
        fs::remove_all(dir);
        AllocTest::TearDown();
    }
    std::string at(const std::string &name) const { return dir + "/" + name; }
    void put(const std::string &name, const std::string &text) const { std::ofstream(at(name)) << text; }
    std::string get(const std::string &name) const { return slurp(at(name)); }

    std::string dir;
};

bool close_on_exec(int fd) { return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; }

struct OpenCase {
    const char *name;
    tn_bool (*open)(tn_file *, const tn_uchar *);
    bool opens_existing;
    const char *existing_after; // contents of "old" after opening and closing
    bool creates_missing;
};

const OpenCase open_cases[] = {
    {"read", tn_file_open_read, true, "old", false},
    {"create", tn_file_open_create, false, "old", true},
    {"truncate", tn_file_open_truncate, true, "", true},
    {"truncate_tmp", tn_file_open_truncate_tmp, true, "", true},
    {"write", tn_file_open_write, true, "old", true},
    {"readwrite", tn_file_open_readwrite, true, "old", true},
};

TEST_F(FileTest, OpenModesKeepTheirExistAndContentsRules)
{
    for (const OpenCase &c : open_cases) {
        SCOPED_TRACE(c.name);
        put("f", "old");
        tn_file file = 123;
        EXPECT_EQ(c.open(&file, u(at("f"))), c.opens_existing ? 1 : 0);
        if (c.opens_existing) {
            EXPECT_TRUE(close_on_exec(file));
            tn_uint64 position = 99;
            EXPECT_TRUE(tn_file_seek_pos(file, &position));
            EXPECT_EQ(position, 0u);
            EXPECT_TRUE(tn_file_close(file));
        } else {
            EXPECT_EQ(file, TN_FILE_INVALID);
        }
        EXPECT_EQ(get("f"), c.existing_after);

        ASSERT_TRUE(tn_file_remove(u(at("f"))));
        EXPECT_EQ(c.open(&file, u(at("f"))), c.creates_missing ? 1 : 0);
        EXPECT_EQ(fs::exists(at("f")), c.creates_missing);
        if (c.creates_missing) {
            EXPECT_TRUE(close_on_exec(file));
            EXPECT_TRUE(tn_file_close(file));
            ASSERT_TRUE(tn_file_remove(u(at("f"))));
        } else {
            EXPECT_EQ(file, TN_FILE_INVALID);
        }
    }
    EXPECT_TRUE(tn_file_close(TN_FILE_INVALID));
}

TEST_F(FileTest, WriteSeekReadRoundTripWithPartialReadAtEnd)
{
    std::string data(10000, 0);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7);
    tn_file file;
    ASSERT_TRUE(tn_file_open_readwrite(&file, u(at("rw"))));
    EXPECT_TRUE(tn_file_write_all(file, data.data(), static_cast<tn_uint32>(data.size())));
    EXPECT_TRUE(tn_file_write_all(-1, nullptr, 0)) << "n of 0 must not touch the handle";

    tn_uint64 position = 0;
    EXPECT_TRUE(tn_file_seek_set(file, 0, &position));
    EXPECT_EQ(position, 0u);
    std::string back;
    char block[4096];
    tn_uint32 count = 1;
    while (tn_file_read(file, block, sizeof block, &count) && count) back.append(block, count);
    EXPECT_EQ(count, 0u) << "the end reads as success with count 0";
    EXPECT_EQ(back, data);

    EXPECT_TRUE(tn_file_seek_set(file, 9995, nullptr));
    EXPECT_TRUE(tn_file_read(file, block, 100, &count));
    EXPECT_EQ(count, 5u);
    EXPECT_TRUE(tn_file_seek_pos(file, &position));
    EXPECT_EQ(position, 10000u);

    // Positions past 4 GiB need 64 bits all the way through.
    const tn_uint64 far = (5ull << 30) + 3;
    EXPECT_TRUE(tn_file_seek_set(file, far, &position));
    EXPECT_EQ(position, far);
    EXPECT_TRUE(tn_file_write(file, "z", 1, &count));
    EXPECT_EQ(count, 1u);
    tn_file_status status;
    EXPECT_TRUE(tn_file_get_fstatus(file, &status));
    EXPECT_EQ(status.size, far + 1);
    EXPECT_FALSE(tn_file_seek_set(file, 1ull << 63, &position));
    EXPECT_TRUE(tn_file_flush(file));
    EXPECT_TRUE(tn_file_close(file));

    ASSERT_TRUE(tn_file_open_read(&file, u(at("rw"))));
    count = 77;
    EXPECT_FALSE(tn_file_write(file, "x", 1, &count));
    EXPECT_EQ(count, 0u) << "the count is written on failure too";
    EXPECT_TRUE(tn_file_close(file));
}

TEST_F(FileTest, RenameReplacesAndRetries)
{
    put("a", "new");
    put("b", "old");
    EXPECT_TRUE(tn_file_rename(u(at("a")), u(at("b"))));
    EXPECT_FALSE(fs::exists(at("a")));
    EXPECT_EQ(get("b"), "new");

    tn_elapse watch;
    tn_elapse_start(&watch);
    EXPECT_FALSE(tn_file_rename(u(at("missing")), u(at("c"))));
    EXPECT_FALSE(tn_file_rename_wait(u(at("missing")), u(at("c")), 0));
    EXPECT_LT(tn_elapse_total(&watch), 250u) << "without a wait there is no retry";

    tn_elapse_start(&watch);
    EXPECT_FALSE(tn_file_rename_wait(u(at("missing")), u(at("c")), 1));
    tn_uint32 took = tn_elapse_total(&watch);
    EXPECT_GT(took, 250u) << "a wait of 1 still sleeps once";
    EXPECT_LT(took, 5000u);

    tn_elapse_start(&watch);
    EXPECT_TRUE(tn_file_rename_wait(u(at("b")), u(at("c")), 1000));
    EXPECT_LT(tn_elapse_total(&watch), 250u) << "a first success returns at once";
    EXPECT_EQ(get("c"), "new");
}

TEST_F(FileTest, RenameAcrossFileSystemsCopies)
{
    struct stat here, there;
    if (stat(dir.c_str(), &here) != 0 || stat("/dev/shm", &there) != 0 || here.st_dev == there.st_dev)
        GTEST_SKIP() << "no second file system at /dev/shm";
    std::string other = make_temp_dir("/dev/shm");
    ASSERT_FALSE(other.empty());
    std::string target = other + "/t";
    const tn_time stamp = 1000000000;

    auto attempt = [&]() {
        put("src", std::string(100000, 'q'));
        chmod(at("src").c_str(), 0640);
        EXPECT_TRUE(tn_file_set_time(u(at("src")), &stamp));
        std::ofstream(target, std::ios::binary) << "old";
        bool ok = tn_file_rename(u(at("src")), u(target));
        size_t entries = std::distance(fs::directory_iterator(other), fs::directory_iterator());
        EXPECT_EQ(entries, 1u) << "no temporary file may stay behind";
        if (!ok) {
            EXPECT_EQ(slurp(target), "old");
            EXPECT_TRUE(fs::exists(at("src")));
        }
        return ok;
    };
    EXPECT_GE(tn_test::sweep_alloc_failures(attempt), 2) << "the copy allocates its name and its block";

    EXPECT_FALSE(fs::exists(at("src")));
    EXPECT_EQ(slurp(target), std::string(100000, 'q'));
    tn_file_status status;
    EXPECT_TRUE(tn_file_get_status(u(target), &status));
    EXPECT_EQ(status.modified, stamp);
    struct stat st;
    EXPECT_EQ(stat(target.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    fs::remove_all(other);
}

TEST_F(FileTest, StatusTellsFilesFromDirectoriesAndKeepsSetTime)
{
    put("f", std::string(100, 'x'));
    ASSERT_TRUE(tn_dir_make(u(at("d"))));
    EXPECT_FALSE(tn_dir_make(u(at("d"))));
    EXPECT_FALSE(tn_dir_make(u(at("no/such"))));

    tn_file_status status;
    ASSERT_TRUE(tn_file_get_status(u(at("f")), &status));
    EXPECT_EQ(status.directory, 0);
    EXPECT_EQ(status.size, 100u);
    ASSERT_TRUE(tn_file_get_status(u(at("d")), &status));
    EXPECT_NE(status.directory, 0);
    EXPECT_FALSE(tn_file_get_status(u(at("none")), &status));

    for (const char *name : {"f", "d", "none"}) {
        EXPECT_EQ(tn_file_is_file(u(at(name))), name[0] == 'f') << name;
        EXPECT_EQ(tn_file_is_dir(u(at(name))), name[0] == 'd') << name;
    }

    for (tn_time t : {tn_time{0}, tn_time{1234567890}, tn_time{4102444800}}) {
        SCOPED_TRACE(t);
        EXPECT_TRUE(tn_file_set_time(u(at("f")), &t));
        ASSERT_TRUE(tn_file_get_status(u(at("f")), &status));
        EXPECT_EQ(status.modified, t);
    }
    const tn_time t = 5;
    EXPECT_FALSE(tn_file_set_time(u(at("none")), &t));
    EXPECT_FALSE(tn_file_set_time(u(at("d")), &t)) << "a directory does not open for writing";

    tn_file_system_status system;
    ASSERT_TRUE(tn_file_get_system_status(u(at("f")), &system));
    struct statvfs vfs;
    ASSERT_EQ(statvfs(dir.c_str(), &vfs), 0);
    EXPECT_EQ(system.total, tn_uint64(vfs.f_blocks) * vfs.f_frsize);
    EXPECT_LE(system.free, system.total);
    EXPECT_EQ(system.used, system.total - system.free);
    EXPECT_FALSE(tn_file_get_system_status(u(at("none")), &system));

    EXPECT_FALSE(tn_file_remove(u(at("d"))));
    EXPECT_TRUE(tn_dir_remove(u(at("d"))));
    EXPECT_TRUE(tn_file_remove(u(at("f"))));
    EXPECT_FALSE(tn_file_remove(u(at("f"))));
}

TEST_F(FileTest, DirectoryListingSkipsOnlyDotAndDotDot)
{
    const std::set<std::string> names = {"plain", ".hidden", "sub", "\xc3\xbcn\xc3\xaf \xe2\x82\xac.txt"};
    for (const std::string &n : names) n == "sub" ? (void)fs::create_directory(at(n)) : put(n, "");

    for (const std::string &path : {dir, dir + "/"}) {
        SCOPED_TRACE(path);
        std::set<std::string> seen;
        tn_dir d;
        ASSERT_TRUE(tn_dir_open(&d, u(path)));
        EXPECT_TRUE(close_on_exec(dirfd(static_cast<DIR *>(d.handle))));
        while (const tn_uchar *name = tn_dir_read(&d)) seen.insert(reinterpret_cast<const char *>(name));
        EXPECT_EQ(tn_dir_read(&d), nullptr);
        EXPECT_TRUE(tn_dir_close(&d));
        EXPECT_EQ(seen, names);
    }

    tn_dir d;
    ASSERT_TRUE(tn_dir_open(&d, u(at("sub"))));
    EXPECT_EQ(tn_dir_read(&d), nullptr) << "an empty directory lists nothing";
    EXPECT_TRUE(tn_dir_close(&d));

    EXPECT_FALSE(tn_dir_open(&d, u(at("plain"))));
    EXPECT_FALSE(tn_dir_open(&d, u(at("none"))));
    d.pending = 7;
    EXPECT_FALSE(tn_dir_open(&d, u(std::string())));
    EXPECT_EQ(d.pending, 7) << "an empty path leaves the record alone";

    const auto made = tn_test::sweep_alloc_failures([&]() {
        tn_dir listing;
        if (!tn_dir_open(&listing, u(dir))) return false;
        size_t count = 0;
        while (tn_dir_read(&listing)) ++count;
        EXPECT_TRUE(tn_dir_close(&listing));
        return count == names.size();
    });
    EXPECT_GE(made, 1);
}

TEST_F(FileTest, FirstLineNeedsRoomForTheTerminator)
{
    const struct {
        const char *contents;
        tn_bool result;
        const char *line;
    } cases[] = {
        {"ab\r\nmore", 1, "ab"}, {"abc", 1, "abc"}, {"abcdefgh", 0, ""}, {"abcdefg\n", 1, "abcdefg"},
        {"", 1, ""}, {"x\ny\n", 1, "x"}, {"\nabc", 1, ""}, {"abcdefgh\n", 0, ""}, {"a\rb", 1, "a"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(std::string(c.contents)));
        put("l", c.contents);
        tn_uchar buffer[8];
        EXPECT_EQ(tn_file_get_first_line(u(at("l")), buffer, sizeof buffer), c.result);
        if (c.result) {
            EXPECT_STREQ(reinterpret_cast<char *>(buffer), c.line);
        }
    }
    tn_uchar buffer[8];
    EXPECT_FALSE(tn_file_get_first_line(u(at("none")), buffer, sizeof buffer));
}

TEST(FileNames, SuffixAbsolutePathAndFixedValues)
{
    const struct {
        const char *path;
        const char *suffix;
    } cases[] = {
        {"a.txt", "txt"}, {"a", ""}, {"a.", ""}, {"d.x/a", ""}, {"d.x/a.b", "b"}, {"/x/y.tar.gz", "gz"},
        {".profile", "profile"}, {"", ""}, {"d/.", ""}, {"a\\b.c", "c"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.path);
        const tn_uchar *path = reinterpret_cast<const tn_uchar *>(c.path);
        const tn_uchar *suffix = tn_file_get_suffix(path);
        EXPECT_STREQ(reinterpret_cast<const char *>(suffix), c.suffix);
        EXPECT_EQ(suffix + strlen(c.suffix), path + strlen(c.path)) << "the suffix points into the path";
    }

    EXPECT_TRUE(tn_file_is_absolute_path(u("/x")));
    EXPECT_TRUE(tn_file_is_absolute_path(u("/")));
    for (const char *relative : {"", "x", "./x", "C:\\x", "\\x", "C:/x"})
        EXPECT_FALSE(tn_file_is_absolute_path(u(relative))) << relative;

    EXPECT_EQ(tn_file_separator(), '/');
    EXPECT_STREQ(reinterpret_cast<const char *>(tn_file_line_feed()), "\n");
    EXPECT_STREQ(reinterpret_cast<const char *>(tn_file_get_invalid_file_name_chars()), "\"<>|:*?/\\");
    EXPECT_EQ(tn_file_stdin(), 0);
    EXPECT_EQ(tn_file_stdout(), 1);
    EXPECT_EQ(tn_file_stderr(), 2);
}

} // namespace
