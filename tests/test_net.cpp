#include <tarnel_util/tn_net.h>
#include <tarnel_util/tn_time.h>

#include "tn_test_alloc.h"

#include <sys/socket.h>
#include <unistd.h>
#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono;
constexpr tn_uint32 READ = TN_NET_TASK_READ, WRITE = TN_NET_TASK_WRITE, IDLE = TN_NET_TASK_IDLE,
                    TIMEOUT = TN_NET_TASK_TIMEOUT, CANCEL = TN_NET_TASK_CANCEL, REMOVE = TN_NET_TASK_REMOVE;
constexpr tn_time past = 1; // long gone, and not the "no deadline" 0

tn_time now_ms() { tn_time t; tn_time_msec(&t); return t; }

struct Pair {
    int a = -1, b = -1;
    Pair() { int f[2]; if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, f) == 0) a = f[0], b = f[1]; }
    ~Pair() { close(a), close(b); }
};

using Call = std::pair<tn_uint32, tn_uint32>; // (kind, id) of one callback
using Calls = std::vector<Call>;

struct Log { // every callback's copy of its task; the hook acts from inside one
    std::vector<tn_net_task> seen;
    std::function<void(tn_net_task *)> hook;
    Calls take() { Calls c; for (const auto &t : seen) c.push_back({t.kind, t.id}); seen.clear(); return c; }
};
void record(tn_net_task *t) { auto &r = *static_cast<Log *>(t->user); r.seen.push_back(*t); if (r.hook) r.hook(t); }

class Net : public tn_test::AllocTest {
protected:
    Log rec;
    tn_net net{};
    void SetUp() override { AllocTest::SetUp(); ASSERT_TRUE(tn_net_init(&net)); }
    void TearDown() override { rec.hook = nullptr; tn_net_free(&net); AllocTest::TearDown(); }
    tn_uint32 set(tn_uint32 kind, tn_time deadline, int sock, tn_net *n = nullptr)
    {
        tn_net_task t{};
        tn_net_task_init(&t, kind, deadline, sock, record, &rec);
        return tn_net_set_net_task(n ? n : &net, &t, nullptr) ? t.id : 0;
    }
    void cycle(tn_int32 timeout = 0) { EXPECT_TRUE(tn_net_process(&net, timeout)); }
    void clear() { rec.hook = nullptr; tn_net_reset(&net); rec.take(); }
    tn_uint32 len(const tn_array &a) const { return tn_array_length(&a); }
};

// T0..T7 sit on falling descriptors; T1 and T4 are timed out, T1 readable too. Row 3 is the shut-down.
TEST_F(Net, CallbacksRunRemovesThenCancelsAndTimeoutsThenReadyInTableOrder)
{
    std::vector<Pair> pairs(8);
    tn_uint32 T[8];
    for (int i = 0; i < 8; ++i) T[i] = set(READ, (i == 1 || i == 4) ? past : 0, pairs[7 - i].a);
    for (int i : {6, 2, 1, 0}) (void)::send(pairs[7 - i].b, "x", 1, 0);
    const Calls expected[] = {
        {{TIMEOUT, T[1]}, {TIMEOUT, T[4]}}, // the requests' own wake-up ends this wait
        {{REMOVE, T[3]}, {REMOVE, T[5]}, {TIMEOUT, T[1]}, {CANCEL, T[2]}, {TIMEOUT, T[4]}, {CANCEL, T[7]}},
        {{TIMEOUT, T[1]}, {CANCEL, T[2]}, {TIMEOUT, T[4]}, {CANCEL, T[7]}, {READ, T[0]}, {READ, T[6]}},
        {{REMOVE, T[0]}, {REMOVE, T[1]}, {REMOVE, T[2]}, {REMOVE, T[4]}, {REMOVE, T[6]}, {REMOVE, T[7]},
         {REMOVE, T[7] + 1}}, // the pending-only task last
    };
    for (int c = 0; c < 4; ++c) {
        SCOPED_TRACE(testing::Message() << "cycle " << c);
        for (int i : {7, 2}) EXPECT_TRUE(c != 1 || tn_net_cancel_net_task(&net, T[i]));
        for (int i : {5, 3}) EXPECT_TRUE(c != 1 || tn_net_remove_net_task(&net, T[i]));
        EXPECT_TRUE(c < 3 || (set(WRITE, 0, pairs[4].a) && tn_net_modify_net_task(&net, T[6], WRITE, 0, record, &rec)));
        c < 3 ? cycle(1000) : tn_net_free(&net);
        for (const auto &t : rec.seen) EXPECT_TRUE(t.kind != READ || t.result == TN_POLL_READ);
        EXPECT_EQ(rec.take(), expected[c]);
    }
    ASSERT_TRUE(tn_net_init(&net));
}

// The clock can't be frozen: judge only the cycles that stayed in one millisecond.
TEST_F(Net, DeadlineEqualToTheCycleClockHasNotPassed)
{
    Pair p, q;
    int same_ms = 0;
    for (int attempt = 0; attempt < 1000 && same_ms < 5; ++attempt, clear()) {
        const tn_time t0 = now_ms();
        tn_uint32 earlier = (set(READ, t0, p.a), set(READ, t0 - 1, q.a));
        cycle();
        if (now_ms() == t0 && ++same_ms) { EXPECT_EQ(rec.take(), Calls(1, {TIMEOUT, earlier})) << "clock " << t0; }
    }
    EXPECT_GT(same_ms, 0) << "no cycle ran within one millisecond";
}

TEST_F(Net, PendingRequestsYieldByRank)
{
    Pair p;
    for (int row = 0; row < 9; ++row) { // ops 0 modify, 1 cancel, 2 remove: also their ranks
        const int first = row / 3, second = row % 3, wins = second >= first ? second : first;
        SCOPED_TRACE(testing::Message() << "ops " << first << ", " << second);
        const tn_uint32 id = set(READ, 0, p.a), kind[] = {WRITE, CANCEL, REMOVE};
        auto request = [&](int op) {
            return op == 0   ? tn_net_modify_net_task(&net, id, WRITE, 0, record, &rec)
                   : op == 1 ? tn_net_cancel_net_task(&net, id) : tn_net_remove_net_task(&net, id);
        };
        EXPECT_TRUE(request(first));
        EXPECT_EQ(request(second), second >= first) << "a waiting request yields only to one of equal or higher rank";
        EXPECT_EQ(Call(len(net.pending), tn_net_task_array_get_end(&net.pending)->kind), Call(1, kind[wins]));
        EXPECT_EQ((tn_net_reset(&net), rec.take()), Calls(1, {REMOVE, id})) << "reset applies requests, then calls";
    }
    EXPECT_EQ(len(net.tasks) + len(net.poll.entries), 0u);
}

TEST_F(Net, RequestsFindTheirTaskBySocketIdleKeepsItsPollEntryIdsWrap)
{
    Pair p, q;
    net.last_id = 0xFFFFFFFEu;
    tn_uint32 a = set(READ, 0, p.a), b = set(READ, 0, q.a);
    EXPECT_EQ(Call(a, b), Call(0xFFFFFFFFu, 1u));
    cycle();
    EXPECT_TRUE(tn_net_remove_net_task(&net, a));
    EXPECT_TRUE(set(READ, past, p.a) && set(WRITE, 0, q.a)); // one dropped behind the remove; one changes b
    cycle();
    EXPECT_EQ(rec.take(), Calls(1, {REMOVE, a}));
    const tn_net_task *t = tn_net_task_array_get_end(&net.tasks); // the table's only task
    EXPECT_EQ(Calls({{len(net.tasks), len(net.poll.entries)}, {t->kind, t->id}}), Calls({{1, 1}, {WRITE, b}}));
    // Idle never times out; a new idle task gets no poll entry, one made idle keeps its own.
    ASSERT_TRUE(set(IDLE, past, p.a) && tn_net_modify_net_task(&net, b, IDLE, past, record, &rec));
    (void)::send(p.b, "x", 1, 0);
    cycle(), cycle(1000); // the requests' wake-up, then a wait
    EXPECT_EQ(rec.take(), Calls(1, {IDLE, b}));
}

// A removal asked for from another thread (row 0) or from a callback of the cycle (row 1) ends the
// wait at once, not at the end of its 100 ms slice; row 2 asks nothing, so its wait runs out.
TEST_F(Net, RequestEndsTheWaitAtOnce)
{
    Pair p;
    for (int row = 0; row < 3; ++row, clear()) {
        const tn_uint32 id = set(READ, row ? past : 0, p.a);
        steady_clock::time_point asked = steady_clock::now(), back{};
        auto ask = [&] { asked = steady_clock::now(), tn_net_remove_net_task(&net, id); };
        cycle(); // uses up the request's own wake-up
        if (row == 1) rec.hook = [&](tn_net_task *) { ask(); };
        std::thread loop([&] { EXPECT_TRUE(tn_net_process(&net, row < 2 ? 5000 : 200)); back = steady_clock::now(); });
        if (row == 0) std::this_thread::sleep_for(milliseconds(30)), ask();
        loop.join();
        EXPECT_TRUE(row < 2 ? back - asked < milliseconds(50) : back - asked >= milliseconds(190))
            << "row " << row << ": " << duration<double>(back - asked).count() << " s";
    }
}

TEST_F(Net, TwoProducersAgainstARunningLoop)
{
    std::vector<Pair> pairs(6);
    std::atomic<bool> done{false};
    auto producer = [&](int w) {
        for (int r = 0; r < 900; ++r) {
            tn_uint32 id = set(READ, r % 3 ? 0 : past, pairs[w * 3 + r % 3].a);
            (void)::send(pairs[w * 3 + r % 3].b, "x", 1, MSG_DONTWAIT);
            (void)(r % 5 ? tn_net_modify_net_task(&net, id, WRITE, 0, record, &rec) : tn_net_cancel_net_task(&net, id));
            (void)tn_net_remove_net_task(&net, id);
        }
    };
    std::thread loop([&] { while (!done) cycle(5); }), other(producer, 1);
    producer(0);
    other.join(), done = true, loop.join(), cycle(); // the last cycle applies the last removals
    EXPECT_EQ(len(net.tasks) + len(net.pending) + len(net.poll.entries), 0u);
}

// Nine tasks outgrow the room made at init; a failed append must not spoil later cycles. Ids start at 1.
TEST_F(Net, InitAndCycleUnderFailingAllocations)
{
    std::vector<Pair> pairs(9);
    tn_test::sweep_alloc_failures([&] {
        tn_net n;
        if (rec.take(), !tn_net_init(&n)) return false;
        bool ok = true;
        for (const auto &p : pairs) ok &= set(READ, past, p.a, &n) != 0;
        ok &= tn_net_process(&n, 0) && rec.take().size() == pairs.size();
        ok &= tn_net_remove_net_task(&n, 1) && tn_net_process(&n, 0) && rec.seen.at(0).kind == REMOVE;
        tn_uint32 in_table = len(n.tasks);
        EXPECT_TRUE((rec.take(), tn_net_process(&n, 0)));
        EXPECT_EQ(rec.take().size(), in_table) << "a cycle after a failed one skipped tasks";
        return tn_net_free(&n), ok;
    });
}

} // namespace
