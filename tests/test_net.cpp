#include <tarnel_util/tn_net.h>
#include <tarnel_util/tn_time.h>

#include "tn_test_alloc.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <set>
#include <thread>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr tn_uint32 READ = TN_NET_TASK_READ, WRITE = TN_NET_TASK_WRITE, RW = TN_NET_TASK_READ_WRITE,
                    IDLE = TN_NET_TASK_IDLE, TIMEOUT = TN_NET_TASK_TIMEOUT, CANCEL = TN_NET_TASK_CANCEL,
                    REMOVE = TN_NET_TASK_REMOVE;
constexpr tn_time past = 1; // long gone, and not the "no deadline" 0

tn_time now_ms()
{
    tn_time t;
    tn_time_msec(&t);
    return t;
}

struct Pair {
    int a = -1, b = -1;
    Pair()
    {
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0) a = fds[0], b = fds[1];
    }
    ~Pair() { close(a), close(b); }
    Pair(const Pair &) = delete;
    Pair &operator=(const Pair &) = delete;
    void send() const { EXPECT_EQ(::send(b, "x", 1, MSG_DONTWAIT), 1); }
};

struct Call {
    tn_uint32 kind, id;
    bool operator==(const Call &) const = default;
};
using Calls = std::vector<Call>;

void PrintTo(const Call &c, std::ostream *os)
{
    static const char *const names[] = {"none", "read", "write", "rw", "idle", "timeout", "cancel", "remove"};
    *os << (c.kind < 8 ? names[c.kind] : "?") << ':' << c.id;
}

// Keeps every callback's copy of its task; the hook acts from inside one.
struct Recorder {
    std::vector<tn_net_task> seen;
    std::function<void(tn_net_task *)> hook;
    Calls take()
    {
        Calls c;
        for (const auto &t : seen) c.push_back({t.kind, t.id});
        seen.clear();
        return c;
    }
};

void record(tn_net_task *t)
{
    auto *r = static_cast<Recorder *>(t->user);
    r->seen.push_back(*t);
    if (r->hook) r->hook(t);
}

class Net : public tn_test::AllocTest {
protected:
    Recorder rec, rec2;
    tn_net net{};

    void SetUp() override
    {
        AllocTest::SetUp();
        ASSERT_TRUE(tn_net_init(&net));
    }
    void TearDown() override
    {
        rec.hook = rec2.hook = nullptr;
        tn_net_free(&net);
        AllocTest::TearDown();
    }
    tn_uint32 set(tn_uint32 kind, tn_time deadline, int sock, bool cancelable = true, Recorder *r = nullptr)
    {
        tn_net_task t{};
        tn_net_task_init(&t, kind, deadline, sock, record, r ? r : &rec);
        tn_net_task_set_cancelable(&t, cancelable);
        tn_uint32 id = 0;
        EXPECT_TRUE(tn_net_set_net_task(&net, &t, &id));
        EXPECT_EQ(id, t.id);
        return id;
    }
    void cycle(tn_int32 timeout = 0) { EXPECT_TRUE(tn_net_process(&net, timeout)); }
    // Empties the dispatcher between the rows of a table.
    void clear()
    {
        rec.hook = nullptr;
        tn_net_reset(&net);
        rec.take();
    }
    tn_uint32 tabled() const { return tn_array_length(&net.tasks); }
    tn_uint32 pending() const { return tn_array_length(&net.pending); }
    const tn_net_task &at(const tn_array &a, tn_uint32 i) const { return static_cast<tn_net_task *>(tn_array_get(&a))[i]; }
    bool polled(int s) const { return tn_pollinfo_array_find(&net.poll.entries, s) < tn_array_length(&net.poll.entries); }
};

TEST_F(Net, IdsStartAtOneAndWrapPastZeroToOne)
{
    Pair p;
    EXPECT_EQ(set(READ, 0, p.a), 1u);
    EXPECT_EQ(set(READ, 0, p.a), 2u);
    net.last_id = 0xFFFFFFFEu;
    EXPECT_EQ(set(READ, 0, p.a), 0xFFFFFFFFu);
    EXPECT_EQ(set(READ, 0, p.a), 1u);
}

// Eight tasks T1..T8 in table order on descriptors in falling order, so that
// nothing ordered by socket or by readiness passes. Every phase calls in
// table order, and cancels and time-outs share one phase.
TEST_F(Net, CallbacksRunRemovesThenCancelsAndTimeoutsThenReadyInTableOrder)
{
    std::vector<Pair> pairs(8);
    tn_uint32 T[8];
    for (int i = 0; i < 8; ++i) T[i] = set(READ, (i == 1 || i == 4) ? past : 0, pairs[7 - i].a);
    for (int i : {6, 2, 1, 0}) pairs[7 - i].send(); // T7, T3 (to be canceled), T2 (timed out), T1

    cycle(1000); // the requests canceled this wait: no readiness yet
    EXPECT_EQ(rec.take(), (Calls{{TIMEOUT, T[1]}, {TIMEOUT, T[4]}}));
    for (int i : {7, 2}) EXPECT_TRUE(tn_net_cancel_net_task(&net, T[i]));
    for (int i : {5, 3}) EXPECT_TRUE(tn_net_remove_net_task(&net, T[i]));
    cycle(1000);
    EXPECT_EQ(rec.take(), (Calls{{REMOVE, T[3]}, {REMOVE, T[5]}, {TIMEOUT, T[1]}, {CANCEL, T[2]},
                                 {TIMEOUT, T[4]}, {CANCEL, T[7]}}));
    // Now the wait runs. T2 and T3 are readable too, but a timed-out or a
    // canceled task gets no readiness call.
    cycle(1000);
    auto seen = rec.seen;
    EXPECT_EQ(rec.take(), (Calls{{TIMEOUT, T[1]}, {CANCEL, T[2]}, {TIMEOUT, T[4]}, {CANCEL, T[7]},
                                 {READ, T[0]}, {READ, T[6]}}));
    ASSERT_EQ(seen.size(), 6u);
    EXPECT_EQ(seen[4].result, TN_POLL_READ);
    EXPECT_EQ(seen[5].result, TN_POLL_READ);
    EXPECT_EQ(seen[5].socket, pairs[1].a);
}

TEST_F(Net, DeadlinesDecideTimeOutsAndATimedOutTaskIsCalledEveryCycle)
{
    const tn_time now = now_ms();
    struct Case {
        const char *what;
        tn_uint32 kind;
        tn_time deadline;
        bool times_out;
    } cases[] = {
        {"read, no deadline", READ, 0, false},
        {"read, in an hour", READ, now + 3600000, false},
        {"read, largest deadline", READ, INT64_MAX, false},
        {"read, past", READ, past, true},
        {"read, negative (signed comparison)", READ, -5, true},
        {"write, past: ready as well, called as timed out only", WRITE, past, true},
        {"read and write, past", RW, past, true},
        {"timed-out kind by request", TIMEOUT, past, true},
        {"idle, past", IDLE, past, false},
        {"idle, negative", IDLE, -5, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Pair p;
        tn_uint32 id = set(c.kind, c.deadline, p.a);
        for (int round = 0; round < 3; ++round) cycle(round ? 20 : 0);
        EXPECT_EQ(rec.take(), c.times_out ? Calls(3, Call{TIMEOUT, id}) : Calls{});
        clear();
    }
}

// The clock can't be frozen, so this keeps the cycles that read the same
// millisecond before and after: there the cycle's clock equals the deadline.
TEST_F(Net, DeadlineEqualToTheCycleClockHasNotPassed)
{
    Pair p, q;
    int same_ms = 0;
    for (int attempt = 0; attempt < 1000 && same_ms < 5; ++attempt) {
        tn_time t0 = now_ms();
        set(READ, t0, p.a);
        tn_uint32 earlier = set(READ, t0 - 1, q.a);
        cycle();
        tn_time t1 = now_ms();
        Calls c = rec.take();
        EXPECT_NE(std::find(c.begin(), c.end(), Call{TIMEOUT, earlier}), c.end()) << "deadline " << t0 - 1;
        if (t1 == t0) {
            ++same_ms;
            EXPECT_EQ(c, (Calls{{TIMEOUT, earlier}})) << "deadline equal to the clock, " << t0;
        }
        clear();
    }
    EXPECT_GT(same_ms, 0) << "no cycle ran within one millisecond";
}

TEST_F(Net, NearDeadlineFiresOnlyOnceItHasPassed)
{
    Pair p;
    const tn_time deadline = now_ms() + 50;
    tn_uint32 id = set(READ, deadline, p.a);
    cycle();
    EXPECT_TRUE(rec.seen.empty());
    tn_time called_at = 0;
    rec.hook = [&](tn_net_task *) { called_at = now_ms(); };
    for (auto t0 = clock_type::now(); rec.seen.empty() && clock_type::now() - t0 < milliseconds(3000);) cycle(10);
    EXPECT_EQ(rec.take(), (Calls{{TIMEOUT, id}}));
    EXPECT_GT(called_at, deadline);
}

TEST_F(Net, PendingRequestsYieldByRank)
{
    enum Op { Modify, ReadRecord, Cancel, Remove };
    struct Case {
        Op first, second;
        tn_bool second_result;
        tn_uint32 left;
    } cases[] = {
        {Cancel, Remove, 1, REMOVE},   {Remove, Cancel, 0, REMOVE},   {Cancel, ReadRecord, 0, CANCEL},
        {Cancel, Modify, 0, CANCEL},   {Remove, Modify, 0, REMOVE},   {Remove, ReadRecord, 0, REMOVE},
        {Remove, Remove, 1, REMOVE},   {Cancel, Cancel, 1, CANCEL},   {Modify, Cancel, 1, CANCEL},
        {Modify, ReadRecord, 1, READ}, {ReadRecord, Modify, 1, WRITE},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "ops (0 modify, 1 read record, 2 cancel, 3 remove): " << c.first << ", "
                                        << c.second);
        Pair p;
        tn_uint32 id = set(READ, 0, p.a);
        cycle();
        auto request = [&](Op op) -> tn_bool {
            if (op == Modify) return tn_net_modify_net_task(&net, id, WRITE, 0, record, &rec);
            if (op == Cancel) return tn_net_cancel_net_task(&net, id);
            if (op == Remove) return tn_net_remove_net_task(&net, id);
            tn_net_task t{};
            tn_net_task_init(&t, READ, 0, p.a, record, &rec);
            t.id = id;
            return tn_net_set_net_task(&net, &t, nullptr);
        };
        EXPECT_TRUE(request(c.first));
        EXPECT_EQ(request(c.second), c.second_result);
        ASSERT_EQ(pending(), 1u);
        EXPECT_EQ(at(net.pending, 0).kind, c.left);
        EXPECT_EQ(at(net.pending, 0).id, id);
        clear();
    }
}

// Requests are matched to the table by socket, not by id.
TEST_F(Net, RequestsFindTheirTaskBySocket)
{
    Pair p, q;
    const tn_time later = now_ms() + 3600000;
    tn_uint32 a = set(READ, later, p.a), b = set(READ, 0, q.a);
    cycle();
    EXPECT_TRUE(polled(p.a));
    // Behind a remove in the same batch, a request for that socket is dropped.
    EXPECT_TRUE(tn_net_remove_net_task(&net, a));
    tn_uint32 late = set(READ, past, p.a, true, &rec2);
    // A new task on a socket in the table changes that task instead.
    tn_uint32 other = set(WRITE, 0, q.a, true, &rec2);
    cycle();
    ASSERT_EQ(rec.seen.size(), 1u);
    EXPECT_EQ(rec.seen[0].deadline, later); // a remove keeps the other fields
    EXPECT_EQ(rec.take(), (Calls{{REMOVE, a}}));
    EXPECT_FALSE(polled(p.a));
    EXPECT_FALSE(tn_net_get_net_task(&net, a, nullptr));
    EXPECT_FALSE(tn_net_get_net_task(&net, late, nullptr));
    EXPECT_FALSE(tn_net_get_net_task(&net, other, nullptr));
    ASSERT_EQ(tabled(), 1u);
    EXPECT_EQ(at(net.tasks, 0).id, b);
    EXPECT_EQ(at(net.tasks, 0).kind, WRITE);
    p.send();
    cycle(1000); // q is writable at once; nothing reaches p any more
    EXPECT_EQ(rec2.take(), (Calls{{WRITE, b}}));
    EXPECT_TRUE(rec.seen.empty());
}

TEST_F(Net, LookupsAndRefusals)
{
    Pair p, q;
    tn_uint32 id = set(READ, 0, p.a, false);
    tn_net_task out{};
    ASSERT_TRUE(tn_net_get_net_task(&net, id, &out)); // only the request so far
    EXPECT_EQ(out.kind, READ);
    EXPECT_FALSE(tn_net_cancel_net_task(&net, id)); // not cancelable, found in pending
    cycle();
    EXPECT_FALSE(tn_net_cancel_net_task(&net, id)); // and in the table
    EXPECT_FALSE(tn_net_modify_net_task(&net, id, CANCEL, 0, record, &rec));
    EXPECT_FALSE(tn_net_modify_net_task(&net, 0, READ, 0, record, &rec));
    EXPECT_TRUE(tn_net_remove_net_task(&net, 0));
    EXPECT_TRUE(tn_net_cancel_net_task(&net, 0));
    EXPECT_FALSE(tn_net_get_net_task(&net, 0, nullptr));
    EXPECT_FALSE(tn_net_modify_net_task(&net, 99, READ, 0, record, &rec));
    EXPECT_FALSE(tn_net_remove_net_task(&net, 99));
    EXPECT_FALSE(tn_net_cancel_net_task(&net, 99));
    EXPECT_FALSE(tn_net_get_net_task(&net, 99, nullptr));
    EXPECT_EQ(pending(), 0u);

    // With a request pending, get still reports the table's record.
    const tn_time later = now_ms() + 3600000;
    ASSERT_TRUE(tn_net_modify_net_task(&net, id, WRITE, later, record, &rec));
    ASSERT_TRUE(tn_net_get_net_task(&net, id, &out));
    EXPECT_EQ(out.kind, READ);
    cycle();
    ASSERT_TRUE(tn_net_get_net_task(&net, id, &out));
    EXPECT_EQ(out.kind, WRITE);
    EXPECT_EQ(out.deadline, later);

    // A cancel that reaches the socket by another road is dropped when applied.
    set(CANCEL, 0, p.a);
    cycle();
    ASSERT_EQ(tabled(), 1u);
    EXPECT_EQ(at(net.tasks, 0).kind, WRITE);
    EXPECT_TRUE(polled(p.a));
    EXPECT_TRUE(rec.seen.empty());
}

TEST_F(Net, IdleTasksKeepOrLackAPollEntry)
{
    Pair fresh, moved;
    set(IDLE, past, fresh.a);
    fresh.send();
    cycle();
    cycle(50);
    EXPECT_FALSE(polled(fresh.a));
    EXPECT_TRUE(rec.seen.empty());

    tn_uint32 id = set(READ, 0, moved.a);
    cycle();
    ASSERT_TRUE(tn_net_modify_net_task(&net, id, IDLE, past, record, &rec));
    cycle();
    EXPECT_TRUE(polled(moved.a));
    moved.send();
    cycle(1000);
    ASSERT_EQ(rec.seen.size(), 1u);
    EXPECT_EQ(rec.seen[0].result, TN_POLL_READ);
    EXPECT_EQ(rec.take(), (Calls{{IDLE, id}}));
}

TEST_F(Net, ResetAndFreeCallEveryTaskOnceWithRemoveInTableOrder)
{
    for (bool use_free : {false, true}) {
        SCOPED_TRACE(use_free ? "free" : "reset");
        tn_net other{};
        tn_net *n = &net;
        if (use_free) {
            ASSERT_TRUE(tn_net_init(n = &other));
        }
        Pair p1, p2, p3;
        tn_net_task t[3]{};
        for (int i : {0, 1}) tn_net_task_init(&t[i], READ, 0, i ? p2.a : p1.a, record, &rec);
        tn_net_task_init(&t[2], WRITE, 0, p3.a, record, &rec);
        for (int i : {0, 1}) EXPECT_TRUE(tn_net_set_net_task(n, &t[i], nullptr));
        EXPECT_TRUE(tn_net_process(n, 0));
        EXPECT_TRUE(tn_net_set_net_task(n, &t[2], nullptr)); // pending only
        EXPECT_TRUE(tn_net_modify_net_task(n, t[1].id, WRITE, 0, record, &rec));
        use_free ? tn_net_free(n) : tn_net_reset(n);
        EXPECT_EQ(rec.take(), (Calls{{REMOVE, t[0].id}, {REMOVE, t[1].id}, {REMOVE, t[2].id}}));
        if (use_free) continue;
        EXPECT_EQ(tabled() + pending() + tn_array_length(&net.poll.entries), 0u);
        tn_uint32 d = set(READ, 0, p1.a);
        p1.send();
        cycle();
        cycle(1000);
        EXPECT_EQ(rec.take(), (Calls{{READ, d}}));
    }
}

// A request from a callback of the remove, cancel or time-out phase cancels
// the wait of the same cycle. For the remove phase the requests' own cancel
// is used up first by a zero check of the poll; the control row shows that
// such a cycle does wait.
TEST_F(Net, RequestFromAnEarlyCallbackEndsThatCyclesWait)
{
    for (tn_uint32 phase : {REMOVE, CANCEL, TIMEOUT, TN_NET_TASK_NONE}) {
        SCOPED_TRACE(testing::Message() << "phase " << phase);
        Pair p, q;
        tn_uint32 other = set(READ, 0, q.a);
        tn_uint32 id = set(READ, (phase == TIMEOUT || phase == TN_NET_TASK_NONE) ? past : 0, p.a);
        if (phase == CANCEL) {
            EXPECT_TRUE(tn_net_cancel_net_task(&net, id));
        }
        cycle();
        if (phase == REMOVE) {
            EXPECT_TRUE(tn_net_remove_net_task(&net, id));
            tn_uint32 count;
            ASSERT_TRUE(tn_poll_check(&net.poll, 0, &count));
        }
        rec.take();
        if (phase != TN_NET_TASK_NONE) {
            rec.hook = [&](tn_net_task *t) {
                if (t->id == id) {
                    EXPECT_TRUE(tn_net_modify_net_task(&net, other, READ, 0, record, &rec));
                }
            };
        }
        auto t0 = clock_type::now();
        EXPECT_TRUE(tn_net_process(&net, phase ? 5000 : 300));
        auto took = clock_type::now() - t0;
        EXPECT_EQ(rec.take(), (Calls{{phase ? phase : TIMEOUT, id}}));
        if (phase) {
            EXPECT_LT(took, milliseconds(1000));
        } else {
            EXPECT_GE(took, milliseconds(290)) << "nothing should end this wait early";
        }
        clear();
    }
}

// A request from another thread ends the wait at once, well inside the 100 ms
// slice it would take if it were only looked at between slices, and is
// applied by the next cycle.
TEST_F(Net, RequestFromAnotherThreadEndsTheWaitAndIsAppliedNextCycle)
{
    Pair p, q;
    struct Case {
        const char *what;
        std::function<void(tn_uint32 id)> ask;
        tn_uint32 next_kind; // 0: no call
        bool new_task;
    } cases[] = {
        {"net cancel", [&](tn_uint32) { tn_net_cancel(&net); }, 0, false},
        {"cancel", [&](tn_uint32 id) { EXPECT_TRUE(tn_net_cancel_net_task(&net, id)); }, CANCEL, false},
        {"remove", [&](tn_uint32 id) { EXPECT_TRUE(tn_net_remove_net_task(&net, id)); }, REMOVE, false},
        {"set", [&](tn_uint32) { set(READ, past, q.a); }, TIMEOUT, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        tn_uint32 id = set(READ, 0, p.a);
        cycle(); // uses up the cancel of the request
        tn_bool ok = 0;
        clock_type::time_point asked{}, back{};
        std::thread loop([&] {
            ok = tn_net_process(&net, 10000);
            back = clock_type::now();
        });
        std::this_thread::sleep_for(milliseconds(30));
        asked = clock_type::now();
        c.ask(id);
        loop.join();
        EXPECT_TRUE(ok);
        EXPECT_LT(back - asked, milliseconds(50));
        EXPECT_TRUE(rec.seen.empty()) << "applied before the next cycle";
        cycle();
        Calls expected;
        if (c.next_kind) expected.push_back({c.next_kind, c.new_task ? id + 1 : id});
        EXPECT_EQ(rec.take(), expected);
        clear();
    }
}

TEST_F(Net, TwoProducersAgainstARunningLoop)
{
    constexpr int rounds = 300, sockets = 3;
    std::vector<Pair> pairs(2 * sockets);
    std::vector<tn_uint32> ids[2];
    std::atomic<int> running{2};
    rec.hook = [](tn_net_task *t) {
        char buf[64];
        if (t->kind == READ && (t->result & TN_POLL_READ)) (void)recv(t->socket, buf, sizeof buf, MSG_DONTWAIT);
    };
    auto producer = [&](int w) {
        for (int r = 0; r < rounds; ++r) {
            for (int k = 0; k < sockets; ++k) {
                const Pair &p = pairs[w * sockets + k];
                tn_uint32 id = set(READ, r % 3 ? 0 : past, p.a);
                ids[w].push_back(id);
                if (r % 2) (void)::send(p.b, "x", 1, MSG_DONTWAIT);
                (void)tn_net_modify_net_task(&net, id, r % 4 == 1 ? RW : READ, 0, record, &rec);
                if (r % 5 == 0) (void)tn_net_cancel_net_task(&net, id);
                (void)tn_net_remove_net_task(&net, id);
            }
            if (r % 4 == 0) std::this_thread::yield();
        }
        running.fetch_sub(1);
    };
    std::thread a(producer, 0), b(producer, 1);
    while (running.load() > 0) cycle(5);
    a.join();
    b.join();
    for (int i = 0; i < 10 && tabled() + pending(); ++i) cycle();
    EXPECT_EQ(tabled() + pending() + tn_array_length(&net.poll.entries), 0u);

    std::set<tn_uint32> all(ids[0].begin(), ids[0].end()), removed;
    all.insert(ids[1].begin(), ids[1].end());
    EXPECT_EQ(all.size(), 2u * rounds * sockets) << "an id was given twice";
    EXPECT_EQ(all.count(0), 0u);
    for (const auto &t : rec.seen) {
        EXPECT_EQ(all.count(t.id), 1u) << "unknown id " << t.id;
        EXPECT_EQ(removed.count(t.id), 0u) << "called after its removal: " << t.id;
        if (t.kind == REMOVE) removed.insert(t.id);
    }
    EXPECT_GT(removed.size(), 0u);
}

// Nine tasks outgrow the room made at init, so the pending list, the table,
// the poll set and both working lists all grow within the operation. A
// failed cycle must not spoil the ones after it: the next cycle calls each
// task of the table, the timed-out ones marked before the failure too.
TEST_F(Net, CycleUnderFailingAllocations)
{
    std::vector<Pair> pairs(9);
    tn_test::sweep_alloc_failures([&] {
        tn_net n;
        Recorder r;
        if (!tn_net_init(&n)) return false;
        bool ok = true;
        tn_uint32 first = 0;
        for (const auto &p : pairs) {
            tn_net_task t{};
            tn_net_task_init(&t, READ, past, p.a, record, &r);
            ok &= tn_net_set_net_task(&n, &t, first ? nullptr : &first) != 0;
        }
        ok &= tn_net_process(&n, 0) && r.take().size() == pairs.size();
        ok &= tn_net_remove_net_task(&n, first) && tn_net_process(&n, 0);
        ok &= !r.seen.empty() && r.seen[0].kind == REMOVE && r.seen[0].id == first;
        r.seen.clear();
        tn_uint32 in_table = tn_array_length(&n.tasks);
        EXPECT_TRUE(tn_net_process(&n, 0)) << "call list failed " << tn_array_failed(&n.call_list)
                                           << ", remove list failed " << tn_array_failed(&n.remove_list);
        EXPECT_EQ(r.seen.size(), in_table);
        tn_net_free(&n);
        return ok;
    });
}

} // namespace
