// A send that reports 0 bytes taken has made no progress, and trying again makes none either. The kernel does not
// do that on a stream socket, so this executable stands in for send; the library's calls bind to this definition.
#include <tarnel_util/tn_output_buffer.h>
#include <gtest/gtest.h>
#include "support/socket_pair.h"
#include <cerrno>
#include <dlfcn.h>
#include <sys/socket.h>

namespace {
int stalled = -1, stalled_calls = 0; // the descriptor whose sends report 0 bytes, and how often it was tried
// Past this many calls the stand-in fails the send, so that a loop which would spin forever ends and is reported.
constexpr int spin_limit = 1000;
} // namespace

extern "C" ssize_t send(int fd, const void *source, size_t n, int flags)
{
    if (fd == stalled) {
        if (++stalled_calls <= spin_limit) return 0;
        errno = EPIPE;
        return -1;
    }
    using send_fn = ssize_t (*)(int, const void *, size_t, int);
    static const auto real = reinterpret_cast<send_fn>(dlsym(RTLD_NEXT, "send"));
    return real(fd, source, n, flags);
}

TEST(SocketWriteStall, ASendThatTakesNothingFailsTheWriteAtOnce)
{
    tn_test::SocketPair pair;
    tn_poll poll;
    ASSERT_TRUE(tn_poll_create(&poll));
    tn_socket_output_buffer out;
    tn_socket_output_buffer_init(&out, nullptr, 0, pair.ours, &poll, 1000);
    stalled = pair.ours;
    EXPECT_FALSE(tn_socket_output_buffer_write_op("data", 4, &out));
    stalled = -1;
    EXPECT_EQ(stalled_calls, 1) << "the write went on sending after a send that took nothing";
    tn_poll_free(&poll);
}
