#include <tarnel_util/tn_file.h>
#include <tarnel_util/tn_time.h>
#include "support/alloc.h"
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

namespace fs = std::filesystem;
namespace {
const tn_uchar *u(const char *s) { return reinterpret_cast<const tn_uchar *>(s); }
const tn_uchar *u(const std::string &s) { return u(s.c_str()); }

std::string slurp(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}
bool close_on_exec(int fd) { return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; }

// Each test in a fresh directory of its own; at(name) is a path inside it.
class FileTest : public tn_test::AllocTest {
protected:
    void SetUp() override
    {
        AllocTest::SetUp();
        char name[] = "/tmp/tn_file_XXXXXX";
        ASSERT_TRUE(mkdtemp(name));
        dir = name;
    }
    void TearDown() override
    {
        fs::remove_all(dir);
        AllocTest::TearDown();
    }
    std::string at(const std::string &name) const { return dir + "/" + name; }
    void put(const std::string &name, const std::string &text) const { std::ofstream(at(name)) << text; }
    std::string dir;
};

TEST_F(FileTest, OpenModesKeepTheirExistAndContentsRules)
{
    using opener = tn_bool (*)(tn_file *, const tn_uchar *);
    // after: what a file that held "old" holds after opening and closing.
    const struct { const char *name; opener open; bool opens_existing; const char *after; bool creates; } cases[] = {
        {"read", tn_file_open_read, true, "old", false},
        {"create", tn_file_open_create, false, "old", true},
        {"truncate", tn_file_open_truncate, true, "", true},
        {"write", tn_file_open_write, true, "old", true},
        {"readwrite", tn_file_open_readwrite, true, "old", true},
    };
    for (const auto &c : cases) {
        for (bool exists : {true, false}) {
            SCOPED_TRACE(std::string(c.name) + (exists ? ", existing" : ", missing"));
            if (exists) put("f", "old");
            tn_file file = 123;
            const bool opens = exists ? c.opens_existing : c.creates;
            ASSERT_EQ(c.open(&file, u(at("f"))), opens ? 1 : 0);
            if (opens) {
                EXPECT_TRUE(close_on_exec(file));
                EXPECT_TRUE(tn_file_close(file));
            } else {
                EXPECT_EQ(file, TN_FILE_INVALID);
            }
            EXPECT_EQ(fs::exists(at("f")), exists || opens);
            if (exists) { EXPECT_EQ(slurp(at("f")), c.after); }
            fs::remove(at("f"));
        }
    }
}

TEST_F(FileTest, WriteSeekReadRoundTripWithPartialReadAtEnd)
{
    std::string data(10000, 0);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7);
    tn_file file;
    ASSERT_TRUE(tn_file_open_readwrite(&file, u(at("rw"))));
    EXPECT_TRUE(tn_file_write_all(file, data.data(), static_cast<tn_uint32>(data.size())));
    EXPECT_TRUE(tn_file_write_all(-1, nullptr, 0)) << "n of 0 must not touch the handle";
    EXPECT_EQ(slurp(at("rw")), data);
    char block[100];
    tn_uint32 count = 0;
    tn_uint64 position = 1;
    EXPECT_TRUE(tn_file_seek_set(file, 9995, &position));
    EXPECT_EQ(position, 9995u);
    EXPECT_TRUE(tn_file_read(file, block, 100, &count));
    EXPECT_EQ(count, 5u);
    EXPECT_EQ(std::memcmp(block, &data[9995], 5), 0);
    EXPECT_TRUE(tn_file_read(file, block, 100, &count)) << "the end reads as success";
    EXPECT_EQ(count, 0u) << "with count 0";
    EXPECT_TRUE(tn_file_seek_pos(file, &position));
    EXPECT_EQ(position, 10000u);
    // Positions past 4 GiB need 64 bits all the way through.
    const tn_uint64 far = (5ull << 30) + 3;
    tn_file_status status;
    EXPECT_TRUE(tn_file_seek_set(file, far, &position));
    EXPECT_EQ(position, far);
    EXPECT_TRUE(tn_file_write(file, "z", 1, &count));
    EXPECT_EQ(count, 1u);
    EXPECT_TRUE(tn_file_get_fstatus(file, &status));
    EXPECT_EQ(status.size, far + 1);
    EXPECT_FALSE(tn_file_seek_set(file, 1ull << 63, &position));
    EXPECT_TRUE(tn_file_flush(file));
    EXPECT_TRUE(tn_file_close(file));
    EXPECT_TRUE(tn_file_close(TN_FILE_INVALID));
    tn_uint32 read = 77, written = 77; // a failed transfer writes a count of 0 too
    EXPECT_FALSE(tn_file_read(-1, block, 1, &read));
    EXPECT_EQ(read, 0u);
    EXPECT_FALSE(tn_file_write(-1, "x", 1, &written));
    EXPECT_EQ(written, 0u);
}

// A wait of 0 makes one attempt; a wait of 1 still sleeps once before a second.
TEST_F(FileTest, RenameReplacesAndRetries)
{
    put("a", "new");
    put("b", "old");
    EXPECT_TRUE(tn_file_rename(u(at("a")), u(at("b"))));
    EXPECT_FALSE(fs::exists(at("a")));
    EXPECT_EQ(slurp(at("b")), "new");
    const std::string missing = at("missing"), c = at("c");
    tn_elapse watch;
    tn_elapse_start(&watch);
    EXPECT_FALSE(tn_file_rename(u(missing), u(c)));
    EXPECT_FALSE(tn_file_rename_wait(u(missing), u(c), 0));
    EXPECT_LT(tn_elapse_total(&watch), 250u);
    tn_elapse_start(&watch);
    EXPECT_FALSE(tn_file_rename_wait(u(missing), u(c), 1));
    const tn_uint32 took = tn_elapse_total(&watch);
    EXPECT_GT(took, 250u);
    EXPECT_LT(took, 5000u);
    EXPECT_TRUE(tn_file_rename_wait(u(at("b")), u(c), 1000));
    EXPECT_EQ(slurp(c), "new");
}

// A failure on the way leaves the source, the old target and no temporary file; success keeps what a move keeps.
TEST_F(FileTest, RenameAcrossFileSystemsCopies)
{
    struct stat here, there;
    if (stat(dir.c_str(), &here) != 0 || stat("/dev/shm", &there) != 0 || here.st_dev == there.st_dev)
        GTEST_SKIP() << "no second file system at /dev/shm";
    char name[] = "/dev/shm/tn_file_XXXXXX";
    ASSERT_TRUE(mkdtemp(name));
    const std::string other = name, target = other + "/t";
    const tn_time stamp = 1000000000;
    auto attempt = [&]() {
        put("src", std::string(100000, 'q'));
        chmod(at("src").c_str(), 0640);
        EXPECT_TRUE(tn_file_set_time(u(at("src")), &stamp));
        std::ofstream(target, std::ios::binary) << "old";
        bool ok = tn_file_rename(u(at("src")), u(target));
        EXPECT_EQ(std::distance(fs::directory_iterator(other), fs::directory_iterator()), 1);
        if (!ok) {
            EXPECT_EQ(slurp(target), "old");
            EXPECT_TRUE(fs::exists(at("src")));
        }
        return ok;
    };
    EXPECT_GE(tn_test::sweep_alloc_failures(attempt), 2) << "the copy allocates its name and its block";
    EXPECT_FALSE(fs::exists(at("src")));
    EXPECT_TRUE(slurp(target) == std::string(100000, 'q')) << "content differs";
    struct stat st;
    ASSERT_EQ(stat(target.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u) << "the mode went astray";
    EXPECT_EQ(st.st_mtim.tv_sec, stamp) << "the time went astray";
    fs::remove_all(other);
}

// The time goes through a handle opened for writing, which a directory refuses. A directory is no file to
// remove, nor is a file removed twice.
TEST_F(FileTest, StatusTellsFilesFromDirectoriesAndKeepsSetTime)
{
    put("f", std::string(100, 'x'));
    ASSERT_TRUE(tn_dir_make(u(at("d"))));
    EXPECT_FALSE(tn_dir_make(u(at("d")))) << "exists";
    const struct { const char *name; bool exists, file, dir; tn_uint64 size; } cases[] = {
        {"f", true, true, false, 100},
        {"d", true, false, true, 0},
        {"none", false, false, false, 0},
    };
    tn_file_status status;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(tn_file_is_file(u(at(c.name))), c.file ? 1 : 0);
        EXPECT_EQ(tn_file_is_dir(u(at(c.name))), c.dir ? 1 : 0);
        ASSERT_EQ(tn_file_get_status(u(at(c.name)), &status), c.exists ? 1 : 0);
        if (!c.exists) continue;
        EXPECT_EQ(status.directory, c.dir ? 16u : 0u);
        EXPECT_EQ(status.size, c.size);
    }
    for (tn_time t : {tn_time{0}, tn_time{4102444800}}) {
        EXPECT_TRUE(tn_file_set_time(u(at("f")), &t)) << t;
        EXPECT_TRUE(tn_file_get_status(u(at("f")), &status));
        EXPECT_EQ(status.modified, t);
    }
    EXPECT_FALSE(tn_file_set_time(u(at("none")), &status.modified));
    EXPECT_FALSE(tn_file_set_time(u(at("d")), &status.modified));
    tn_file_system_status system;
    ASSERT_TRUE(tn_file_get_system_status(u(at("f")), &system));
    EXPECT_GT(system.total, 0u);
    EXPECT_LE(system.free, system.total);
    EXPECT_EQ(system.used, system.total - system.free);
    EXPECT_FALSE(tn_file_get_system_status(u(at("none")), &system));
    EXPECT_FALSE(tn_file_remove(u(at("d"))));
    EXPECT_TRUE(tn_dir_remove(u(at("d"))));
    EXPECT_FALSE(tn_dir_remove(u(at("d"))));
    EXPECT_TRUE(tn_file_remove(u(at("f"))));
    EXPECT_FALSE(tn_file_remove(u(at("f")))) << "removed twice";
}

// Every failed allocation ends a listing short: a name that cannot be stored
// is never skipped silently.
TEST_F(FileTest, DirectoryListingSkipsOnlyDotAndDotDot)
{
    const std::set<std::string> names = {"plain", ".hidden", "sub", "\xc3\xbcn\xc3\xaf \xe2\x82\xac.txt"}, none;
    for (const std::string &n : names)
        if (n == "sub") fs::create_directory(at(n));
        else put(n, "");
    const struct { std::string path; std::set<std::string> want; } cases[] = {
        {dir, names},
        {dir + "/", names},
        {at("sub"), none},
    };
    for (const auto &[path, want] : cases) {
        SCOPED_TRACE(path);
        std::set<std::string> seen;
        tn_test::sweep_alloc_failures([&, &path = path, &want = want] {
            tn_dir d;
            seen.clear();
            if (!tn_dir_open(&d, u(path))) return false;
            EXPECT_TRUE(close_on_exec(dirfd(static_cast<DIR *>(d.handle))));
            while (const tn_uchar *name = tn_dir_read(&d)) seen.insert(reinterpret_cast<const char *>(name));
            EXPECT_EQ(tn_dir_read(&d), nullptr) << "the end stays";
            EXPECT_EQ(seen.count(""), 0u) << "an empty name";
            EXPECT_TRUE(tn_dir_close(&d));
            return seen == want;
        });
        EXPECT_EQ(seen, want);
    }
    tn_dir d{nullptr, nullptr, 7, {}};
    EXPECT_FALSE(tn_dir_open(&d, u(std::string())));
    EXPECT_EQ(d.pending, 7) << "an empty path leaves the record alone";
    EXPECT_FALSE(tn_dir_open(&d, u(at("plain")))) << "a file";
    EXPECT_FALSE(tn_dir_open(&d, u(at("none"))));
}

// The line ends at CR or LF, and needs room for its terminator.
TEST_F(FileTest, FirstLineNeedsRoomForTheTerminator)
{
    const struct { const char *contents; tn_bool result; const char *line; } cases[] = {
        {"ab\r\nmore", 1, "ab"},
        {"abc", 1, "abc"},
        {"abcdefgh", 0, ""},
        {"abcdefg\n", 1, "abcdefg"},
        {"", 1, ""},
        {"\nabc", 1, ""},
    };
    tn_uchar buffer[8];
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(std::string(c.contents)));
        put("l", c.contents);
        ASSERT_EQ(tn_file_get_first_line(u(at("l")), buffer, sizeof buffer), c.result);
        EXPECT_STREQ(c.result ? reinterpret_cast<char *>(buffer) : "", c.line);
    }
    EXPECT_FALSE(tn_file_get_first_line(u(at("none")), buffer, sizeof buffer));
}

// The suffix points into the path; a backslash is no separator here.
TEST(FileNames, SuffixAndAbsolutePath)
{
    const struct { const char *path, *suffix; } cases[] = {
        {"a", ""},
        {"a.", ""},
        {"d.x/a", ""},
        {"d.x/a.b", "b"},
        {"/x/y.tar.gz", "gz"},
        {".profile", "profile"},
        {"d/.", ""},
        {"a\\b.c", "c"},
    };
    for (const auto &c : cases) {
        const tn_uchar *suffix = tn_file_get_suffix(u(c.path));
        EXPECT_STREQ(reinterpret_cast<const char *>(suffix), c.suffix) << c.path;
        EXPECT_EQ(suffix + strlen(c.suffix), u(c.path) + strlen(c.path)) << c.path;
    }
    EXPECT_TRUE(tn_file_is_absolute_path(u("/")));
    for (const char *relative : {"", "x", "C:\\x", "\\x"}) EXPECT_FALSE(tn_file_is_absolute_path(u(relative))) << relative;
    EXPECT_STREQ(reinterpret_cast<const char *>(tn_file_get_invalid_file_name_chars()), "\"<>|:*?/\\");
}
} // namespace
