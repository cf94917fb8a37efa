#include <tarnel_util/tn_net.h>
#include <tarnel_util/tn_time.h>
#include "support/alloc.h"
#include "support/socket_pair.h"
#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <set>
#include <thread>
#include <vector>

namespace {
using Pair = tn_test::SocketPair;
using namespace std::chrono;
constexpr tn_uint32 READ = TN_NET_TASK_READ, WRITE = TN_NET_TASK_WRITE, IDLE = TN_NET_TASK_IDLE,
                    TIMEOUT = TN_NET_TASK_TIMEOUT, CANCEL = TN_NET_TASK_CANCEL, REMOVE = TN_NET_TASK_REMOVE;
constexpr tn_time past = 1; // long gone, and not the "no deadline" 0
using Call = std::pair<tn_uint32, tn_uint32>; // (kind, id) of one callback
using Calls = std::vector<Call>;
// Every callback's copy of its task goes to seen; the hook acts from inside one.
struct Net : tn_test::AllocTest {
    tn_net net{};
    std::vector<tn_net_task> seen;
    std::function<void(tn_net_task *)> hook;
    void SetUp() override
    {
        AllocTest::SetUp();
        ASSERT_TRUE(tn_net_init(&net));
    }
    void TearDown() override
    {
        hook = nullptr;
        tn_net_free(&net);
        AllocTest::TearDown();
    }
    static void record(tn_net_task *t)
    {
        Net *n = static_cast<Net *>(t->user);
        n->seen.push_back(*t);
        if (n->hook) n->hook(t);
    }
    Calls take() // the calls since the last take
    {
        Calls c;
        for (const auto &t : seen) c.push_back({t.kind, t.id});
        seen.clear();
        return c;
    }
    tn_uint32 set(tn_uint32 kind, tn_time deadline, int sock, tn_net *n = nullptr) // the new task's id, or 0
    {
        tn_net_task t{};
        tn_net_task_init(&t, kind, deadline, sock, record, this);
        return tn_net_set_net_task(n ? n : &net, &t, nullptr) ? t.id : 0;
    }
    bool modify(tn_uint32 id, tn_uint32 k, tn_time at) { return tn_net_modify_net_task(&net, id, k, at, record, this); }
    bool cancel(tn_uint32 id) { return tn_net_cancel_net_task(&net, id); }
    bool remove(tn_uint32 id) { return tn_net_remove_net_task(&net, id); }
    void cycle(tn_int32 timeout = 0) { EXPECT_TRUE(tn_net_process(&net, timeout)); }
    void clear()
    {
        hook = nullptr;
        tn_net_reset(&net);
        seen.clear();
    }
    static tn_uint32 len(const tn_array &a) { return tn_array_length(&a); }
};
} // namespace
// T0..T7 sit on falling descriptors; T1 and T4 are timed out, T1 readable too. Cycle 3 is the shut-down, with a
// pending-only task, which comes last. A waiting request yields only to one of equal or higher rank: modify, then
// cancel, then remove.
TEST_F(Net, CallbacksRunRemovesThenCancelsAndTimeoutsThenReadyInTableOrder)
{
    std::vector<Pair> pairs(8);
    tn_uint32 T[8];
    for (int i = 0; i < 8; ++i) T[i] = set(READ, (i == 1 || i == 4) ? past : 0, pairs[7 - i].ours);
    for (int i : {6, 2, 1, 0}) pairs[7 - i].send_byte();
    const Calls expected[] = {
        {{TIMEOUT, T[1]}, {TIMEOUT, T[4]}}, // the requests' own wake-up ends this wait
        {{REMOVE, T[3]}, {REMOVE, T[5]}, {TIMEOUT, T[1]}, {CANCEL, T[2]}, {TIMEOUT, T[4]}, {CANCEL, T[7]}},
        {{TIMEOUT, T[1]}, {CANCEL, T[2]}, {TIMEOUT, T[4]}, {CANCEL, T[7]}, {READ, T[0]}, {READ, T[6]}},
        {{REMOVE, T[0]}, {REMOVE, T[1]}, {REMOVE, T[2]}, {REMOVE, T[4]}, {REMOVE, T[6]}, {REMOVE, T[7]},
         {REMOVE, T[7] + 1}}};
    for (int c = 0; c < 4; ++c) {
        SCOPED_TRACE(testing::Message() << "cycle " << c);
        if (c == 1) {
            EXPECT_TRUE(cancel(T[7]));
            EXPECT_FALSE(modify(T[7], WRITE, 0)) << "a modify yields to a waiting cancel";
            EXPECT_TRUE(cancel(T[7]));
            EXPECT_TRUE(cancel(T[2]));
            EXPECT_TRUE(remove(T[5]));
            EXPECT_TRUE(remove(T[5]));
            EXPECT_TRUE(remove(T[3]));
            EXPECT_FALSE(cancel(T[3])) << "a cancel yields to a waiting remove";
        }
        if (c == 3) {
            EXPECT_NE(set(WRITE, 0, pairs[4].ours), 0u);
            EXPECT_TRUE(modify(T[6], WRITE, 0));
            tn_net_free(&net);
        } else {
            cycle(1000);
        }
        for (const auto &t : seen)
            if (t.kind == READ) { EXPECT_EQ(t.result, TN_POLL_READ) << "task " << t.id; }
        EXPECT_EQ(take(), expected[c]);
    }
    ASSERT_TRUE(tn_net_init(&net));
}

// The clock can't be frozen: judge only the cycles that stayed in one millisecond.
TEST_F(Net, DeadlineEqualToTheCycleClockHasNotPassed)
{
    Pair p, q;
    int same_ms = 0;
    for (int attempt = 0; attempt < 1000 && same_ms < 5; ++attempt) {
        tn_time t0, t1;
        tn_time_msec(&t0);
        set(READ, t0, p.ours);
        const tn_uint32 earlier = set(READ, t0 - 1, q.ours);
        cycle();
        tn_time_msec(&t1);
        if (t1 == t0) {
            ++same_ms;
            EXPECT_EQ(take(), Calls(1, {TIMEOUT, earlier})) << "clock " << t0;
        }
        clear();
    }
    EXPECT_GT(same_ms, 0) << "no cycle ran within one millisecond";
}
// A second task set on a socket in the table changes the first, unless a removal waits for it. Idle never times
// out; a new idle task gets no poll entry, one made idle keeps its own.
TEST_F(Net, RequestsFindTheirTaskBySocketIdleKeepsItsPollEntryIdsWrap)
{
    Pair p, q;
    net.last_id = 0xFFFFFFFEu;
    const tn_uint32 a = set(READ, 0, p.ours), b = set(READ, 0, q.ours);
    EXPECT_EQ(a, 0xFFFFFFFFu);
    EXPECT_EQ(b, 1u) << "ids wrap past 0";
    cycle();
    EXPECT_TRUE(remove(a));
    EXPECT_NE(set(READ, past, p.ours), 0u); // lost to the removal waiting on the same socket
    EXPECT_NE(set(WRITE, 0, q.ours), 0u);   // changes b
    cycle();
    EXPECT_EQ(take(), Calls(1, {REMOVE, a}));
    ASSERT_EQ(len(net.tasks), 1u);
    EXPECT_EQ(len(net.poll.entries), 1u);
    const tn_net_task *t = tn_net_task_array_get_end(&net.tasks);
    EXPECT_EQ(t->kind, WRITE);
    EXPECT_EQ(t->id, b) << "the second id never stands in the table";
    ASSERT_NE(set(IDLE, past, p.ours), 0u);
    ASSERT_TRUE(modify(b, IDLE, past));
    p.send_byte();
    cycle();     // takes the requests' own wake-up
    cycle(1000); // then waits
    EXPECT_EQ(take(), Calls(1, {IDLE, b})) << "only b, made idle, kept its poll entry; neither timed out";
}
// A removal asked for from another thread or from a callback of the cycle ends the wait at once, not at the end of
// its 100 ms slice; a wait with nothing asked runs out.
TEST_F(Net, RequestEndsTheWaitAtOnce)
{
    Pair p;
    enum { FROM_THREAD, FROM_CALLBACK, NOTHING };
    for (int row : {FROM_THREAD, FROM_CALLBACK, NOTHING}) {
        SCOPED_TRACE(testing::Message() << "row " << row);
        const tn_uint32 id = set(READ, row == FROM_THREAD ? 0 : past, p.ours);
        steady_clock::time_point asked = steady_clock::now(), back{};
        auto ask = [&] {
            asked = steady_clock::now();
            remove(id);
        };
        cycle(); // takes the set's own wake-up
        if (row == FROM_CALLBACK) hook = [&](tn_net_task *) { ask(); };
        std::thread loop([&] {
            EXPECT_TRUE(tn_net_process(&net, row == NOTHING ? 200 : 5000));
            back = steady_clock::now();
        });
        if (row == FROM_THREAD) {
            std::this_thread::sleep_for(milliseconds(30));
            ask();
        }
        loop.join();
        if (row == NOTHING) {
            EXPECT_GE(back - asked, milliseconds(190));
        } else {
            EXPECT_LT(back - asked, milliseconds(50)) << duration<double>(back - asked).count() << " s";
        }
        clear();
    }
    EXPECT_EQ(len(net.tasks), 0u) << "a reset left a task";
    EXPECT_EQ(len(net.pending), 0u) << "a reset left a request";
    EXPECT_EQ(len(net.poll.entries), 0u) << "a reset left a poll entry";
}
// Nine tasks outgrow the room made at init; a failed append must not spoil later cycles: every task that an
// earlier cycle timed out and did not remove is called again. Ids start at 1.
TEST_F(Net, InitAndCycleUnderFailingAllocations)
{
    std::vector<Pair> pairs(9);
    std::set<tn_uint32> held; // what the callbacks have shown the table to hold, not what it says of itself
    auto calls = [&] {
        const Calls c = take();
        for (const auto &[kind, id] : c)
            if (kind == TIMEOUT) held.insert(id);
            else held.erase(id);
        return c;
    };
    tn_test::sweep_alloc_failures([&] {
        tn_net n;
        take();
        held.clear();
        if (!tn_net_init(&n)) return false;
        bool ok = true;
        for (const auto &p : pairs) ok = set(READ, past, p.ours, &n) != 0 && ok;
        ok = tn_net_process(&n, 0) && calls().size() == pairs.size() && ok; // all time out
        ok = tn_net_remove_net_task(&n, 1) && tn_net_process(&n, 0) && ok;
        ok = !seen.empty() && seen[0].kind == REMOVE && ok;
        calls();
        const std::set<tn_uint32> expected = held;
        EXPECT_TRUE(tn_net_process(&n, 0));
        std::set<tn_uint32> called;
        for (const auto &c : take()) called.insert(c.second);
        EXPECT_EQ(called, expected) << "a cycle after a failed one skipped tasks";
        tn_net_free(&n);
        return ok;
    });
}
// Four threads queue, change and remove tasks while the loop's thread cycles and resets: a reset takes the table
// out under the lock and calls each task it held once, with the remove kind.
TEST_F(Net, ResetWhileOtherThreadsSendRequests)
{
    std::vector<Pair> pairs(4);
    std::atomic<bool> done{false};
    std::vector<std::thread> senders;
    for (const Pair &p : pairs)
        senders.emplace_back([&, s = p.ours] {
            while (!done) {
                const tn_uint32 id = set(READ, 0, s);
                modify(id, WRITE, 0);
                remove(id);
            }
        });
    for (int round = 0; round < 200; ++round) {
        cycle();
        take();
        tn_net_reset(&net);
        Calls calls = take();
        std::sort(calls.begin(), calls.end());
        EXPECT_TRUE(std::adjacent_find(calls.begin(), calls.end()) == calls.end()) << "a task was called twice";
        for (const Call &c : calls) EXPECT_EQ(c.first, REMOVE) << "task " << c.second;
    }
    done = true;
    for (auto &t : senders) t.join();
}
