#include <tarnel_util/tn_scheduler.h>
#include <tarnel_util/tn_time.h>

#include "tn_test_alloc.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

namespace {

tn_time now_sec()
{
    tn_time t;
    tn_time_sec(&t);
    return t;
}

// One task's user argument: counts its fires and frees, and may act from
// inside its callback.
struct User {
    int name = 0;
    std::vector<int> *log = nullptr;
    tn_uint32 id = 0;
    int fires = 0, frees = 0;
    std::vector<tn_time> nows;
    std::function<void(tn_time now, tn_time *time)> on_fire;
};

void fire(tn_time now, tn_time *time, void *user)
{
    auto *u = static_cast<User *>(user);
    EXPECT_EQ(u->frees, 0) << "task " << u->name << " fired after its user was let go";
    ++u->fires;
    u->nows.push_back(now);
    if (u->log) u->log->push_back(u->name);
    if (u->on_fire) u->on_fire(now, time);
}

void let_go(void *user) { ++static_cast<User *>(user)->frees; }

// Fires and frees, to compare in one line.
using Counts = std::pair<int, int>;
Counts counts(const User &u) { return {u.fires, u.frees}; }

tn_scheduled_task task_for(User &u, tn_time time)
{
    tn_scheduled_task t;
    EXPECT_TRUE(tn_scheduled_task_init(&t, fire, &u, let_go));
    tn_scheduled_task_set_time(&t, time);
    return t;
}

class Sched : public tn_test::AllocTest {
protected:
    tn_scheduler s{};
    std::vector<int> log;
    std::deque<User> users; // addresses stay put

    void SetUp() override
    {
        AllocTest::SetUp();
        ASSERT_TRUE(tn_scheduler_init(&s));
    }
    void TearDown() override
    {
        for (auto &u : users) u.on_fire = nullptr;
        tn_scheduler_free(&s);
        for (const auto &u : users) EXPECT_LE(u.frees, 1) << "user of task " << u.name << " let go twice";
        AllocTest::TearDown();
    }
    User &user(int name)
    {
        users.emplace_back();
        users.back().name = name;
        users.back().log = &log;
        return users.back();
    }
    tn_uint32 add(User &u, tn_time time, tn_scheduler *sc = nullptr)
    {
        tn_scheduled_task t = task_for(u, time);
        EXPECT_TRUE(tn_scheduler_set_scheduled_task(sc ? sc : &s, &t, &u.id));
        EXPECT_EQ(u.id, t.id);
        return u.id;
    }
    bool pass() { return tn_scheduler_process(&s); }
    bool in_table(tn_uint32 id) const { return tn_scheduled_task_array_find_id(&s.tasks, id) < tn_array_length(&s.tasks); }
};

TEST_F(Sched, UnchangedTaskFiresOnceAndGoesAtTheNextPass)
{
    User &a = user(1);
    tn_scheduled_task t;
    std::memset(&t, 0xAB, sizeof t);
    EXPECT_FALSE(tn_scheduled_task_init(&t, nullptr, &a, let_go));
    EXPECT_EQ(t.id, 0xABABABABu) << "a refused init must leave the record alone";
    ASSERT_TRUE(tn_scheduled_task_init(&t, fire, &a, let_go)); // due at the present second
    ASSERT_TRUE(tn_scheduler_set_scheduled_task(&s, &t, nullptr));
    EXPECT_EQ(t.id, 1u);
    EXPECT_TRUE(pass());
    EXPECT_EQ(counts(a), Counts(1, 0));
    EXPECT_TRUE(in_table(t.id));
    EXPECT_TRUE(pass());
    EXPECT_TRUE(pass());
    EXPECT_EQ(counts(a), Counts(1, 1));
    EXPECT_EQ(tn_array_length(&s.tasks), 0u);
}

TEST_F(Sched, OldestDueTaskFiresFirst)
{
    for (int name : {1, 2, 3}) add(user(name), 1);
    EXPECT_TRUE(pass());
    EXPECT_EQ(log, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(tn_scheduled_task_array_find_id(&s.tasks, users[2].id), 0u); // newest in front
    EXPECT_EQ(tn_scheduled_task_array_get_end(&s.tasks)->id, users[0].id);
}

// What the task starts with and what its callback does with the time value
// decide whether it fires again; three passes each.
TEST_F(Sched, TimeValueDecidesWhatComesNext)
{
    using Start = tn_time (*)(tn_time now);
    using Act = void (*)(tn_time now, tn_time *time);
    const Act leave = [](tn_time, tn_time *) {};
    const Start past = [](tn_time) -> tn_time { return 1; };
    struct Case {
        const char *what;
        Start start;
        Act act;
        int fires;
        bool stays;
    } cases[] = {
        {"present second, left alone", [](tn_time n) { return n; }, leave, 1, false},
        {"past, left alone", past, leave, 1, false},
        {"negative (signed comparison)", [](tn_time) -> tn_time { return -5; }, leave, 1, false},
        {"zero, left alone", [](tn_time) -> tn_time { return 0; }, leave, 3, true},
        {"past, set to 0", past, [](tn_time, tn_time *t) { *t = 0; }, 3, true},
        {"past, set later", past, [](tn_time n, tn_time *t) { *t = n + 100; }, 1, true},
        {"past, set to now", past, [](tn_time n, tn_time *t) { *t = n; }, 1, false},
        {"past, set to -1", past, [](tn_time, tn_time *t) { *t = -1; }, 1, false},
        {"next minute", [](tn_time n) { return n + 60; }, leave, 0, true},
        {"largest time", [](tn_time) -> tn_time { return INT64_MAX; }, leave, 0, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        User &u = user(0);
        u.on_fire = c.act;
        add(u, c.start(now_sec()));
        for (int i = 0; i < 3; ++i) EXPECT_TRUE(pass());
        EXPECT_EQ(counts(u), Counts(c.fires, c.stays ? 0 : 1));
        EXPECT_EQ(in_table(u.id), c.stays);
        tn_scheduled_task got;
        if (c.stays && c.fires == 1) {
            ASSERT_TRUE(tn_scheduler_get_scheduled_task(&s, u.id, &got));
            EXPECT_EQ(got.time, u.nows.at(0) + 100);
        }
        tn_scheduler_reset(&s);
        EXPECT_EQ(u.frees, 1);
    }
}

TEST_F(Sched, RearmedTaskWaitsForItsSecond)
{
    User &a = user(1);
    a.on_fire = [&a](tn_time now, tn_time *t) {
        if (a.fires == 1) *t = now + 1;
    };
    add(a, 1);
    for (auto t0 = std::chrono::steady_clock::now();
         a.fires < 2 && std::chrono::steady_clock::now() - t0 < std::chrono::seconds(4);) {
        EXPECT_TRUE(pass());
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_EQ(a.fires, 2);
    EXPECT_GE(a.nows[1], a.nows[0] + 1);
    EXPECT_LE(a.nows[1], a.nows[0] + 2);
}

// Requests from a callback: its own modify is overtaken by the removal that
// follows from the time value it left alone; a removal of its own task makes
// a later re-arm fail the pass (the rest of the walk is skipped); a task
// that another callback asks to go still fires in that pass.
TEST_F(Sched, RequestsFromCallbacks)
{
    User &a = user(1);
    a.on_fire = [&](tn_time now, tn_time *) { EXPECT_TRUE(tn_scheduler_modify_scheduled_task(&s, a.id, now + 100)); };
    add(a, 1);
    EXPECT_TRUE(pass());
    EXPECT_FALSE(tn_scheduler_get_scheduled_task(&s, a.id, nullptr));
    EXPECT_TRUE(pass());
    EXPECT_EQ(counts(a), Counts(1, 1));

    for (tn_time later : {100, 0}) {
        SCOPED_TRACE(later ? "set later" : "set to 0");
        User &b = user(2), &c = user(3);
        b.on_fire = [&, later](tn_time now, tn_time *t) {
            EXPECT_TRUE(tn_scheduler_remove_scheduled_task(&s, b.id));
            *t = later ? now + later : 0;
        };
        add(b, 1);
        add(c, 1);
        EXPECT_FALSE(pass());
        EXPECT_EQ(c.fires, 0);
        EXPECT_TRUE(pass());
        EXPECT_EQ(counts(b), Counts(1, 1));
        EXPECT_EQ(c.fires, 1);
        tn_scheduler_reset(&s);
    }

    log.clear();
    User &d = user(4), &e = user(5);
    d.on_fire = [&](tn_time, tn_time *) { EXPECT_TRUE(tn_scheduler_remove_scheduled_task(&s, e.id)); };
    add(d, 1);
    add(e, 1);
    EXPECT_TRUE(pass());
    EXPECT_EQ(log, (std::vector<int>{4, 5}));
    EXPECT_TRUE(pass());
    EXPECT_EQ(counts(e), Counts(1, 1));
}

TEST_F(Sched, RequestResultsForZeroUnknownAndRemovedIds)
{
    User &a = user(1);
    tn_uint32 id = add(a, now_sec() + 60);
    EXPECT_TRUE(pass());
    EXPECT_TRUE(tn_scheduler_remove_scheduled_task(&s, 12345));
    EXPECT_FALSE(tn_scheduler_modify_scheduled_task(&s, 12345, 7));
    EXPECT_TRUE(tn_scheduler_remove_scheduled_task(&s, 0));
    EXPECT_FALSE(tn_scheduler_modify_scheduled_task(&s, 0, 7));
    EXPECT_FALSE(tn_scheduler_get_scheduled_task(&s, 0, nullptr));
    EXPECT_FALSE(tn_scheduler_get_scheduled_task(&s, 12345, nullptr));
    EXPECT_EQ(tn_array_length(&s.pending), 0u) << "a refused or empty request was queued";

    tn_scheduled_task got; // a waiting request hides the table's record
    ASSERT_TRUE(tn_scheduler_modify_scheduled_task(&s, id, 77));
    ASSERT_TRUE(tn_scheduler_get_scheduled_task(&s, id, &got));
    EXPECT_EQ(got.time, 77);
    ASSERT_TRUE(tn_scheduler_modify_scheduled_task(&s, id, now_sec() + 60));
    EXPECT_EQ(tn_array_length(&s.pending), 1u);
    EXPECT_TRUE(tn_scheduler_remove_scheduled_task(&s, id));
    EXPECT_FALSE(tn_scheduler_get_scheduled_task(&s, id, &got));
    EXPECT_FALSE(tn_scheduler_modify_scheduled_task(&s, id, 5));
    EXPECT_TRUE(tn_scheduler_remove_scheduled_task(&s, id));
    EXPECT_TRUE(pass());
    EXPECT_EQ(counts(a), Counts(0, 1));
}

TEST_F(Sched, SetWithAKnownIdReplacesWithoutLettingGo)
{
    User &first = user(1), &second = user(2), &third = user(3);
    tn_uint32 id = add(first, 1);
    tn_scheduled_task t = task_for(second, 1);
    tn_scheduled_task_set_id(&t, id);
    tn_uint32 out = 0;
    ASSERT_TRUE(tn_scheduler_set_scheduled_task(&s, &t, &out));
    EXPECT_EQ(out, id);
    EXPECT_EQ(tn_array_length(&s.pending), 1u);
    EXPECT_TRUE(pass());
    EXPECT_EQ(log, (std::vector<int>{2}));
    // Again over the record in the table, whose one-shot removal is waiting.
    t = task_for(third, now_sec() + 60);
    tn_scheduled_task_set_id(&t, id);
    ASSERT_TRUE(tn_scheduler_set_scheduled_task(&s, &t, nullptr));
    EXPECT_TRUE(pass());
    EXPECT_EQ(tn_array_length(&s.tasks), 1u);
    tn_scheduler_reset(&s);
    EXPECT_EQ(counts(first), Counts(0, 0));
    EXPECT_EQ(counts(second), Counts(1, 0));
    EXPECT_EQ(counts(third), Counts(0, 1));
}

TEST_F(Sched, IdsStartAtOneAndWrapPastZeroToOne)
{
    EXPECT_EQ(add(user(1), 0), 1u);
    s.last_id = 0xFFFFFFFEu;
    EXPECT_EQ(add(user(2), 0), 0xFFFFFFFFu);
    EXPECT_EQ(add(user(3), 0), 1u);
}

TEST_F(Sched, ResetAndFreeLetGoOfEveryTaskOnceWithoutCallbacks)
{
    for (bool use_free : {false, true}) {
        SCOPED_TRACE(use_free ? "free" : "reset");
        tn_scheduler other{};
        if (use_free) {
            ASSERT_TRUE(tn_scheduler_init(&other));
        }
        tn_scheduler *sc = use_free ? &other : &s;
        const size_t first = users.size();
        const tn_time later = now_sec() + 60;
        add(user(0), later, sc); // stays in the table
        tn_uint32 b = add(user(1), later, sc), d = add(user(2), later, sc);
        EXPECT_TRUE(tn_scheduler_process(sc));
        EXPECT_TRUE(tn_scheduler_remove_scheduled_task(sc, b));
        EXPECT_TRUE(tn_scheduler_modify_scheduled_task(sc, d, 1));
        add(user(3), 1, sc);                                                // only asked, due
        EXPECT_TRUE(tn_scheduler_remove_scheduled_task(sc, add(user(4), 1, sc))); // asked and taken back
        use_free ? tn_scheduler_free(sc) : tn_scheduler_reset(sc);
        for (size_t i = first; i < users.size(); ++i) {
            EXPECT_EQ(counts(users[i]), Counts(0, 1)) << "task " << users[i].name;
        }
        if (use_free) continue;
        EXPECT_EQ(tn_array_length(&s.tasks) + tn_array_length(&s.pending), 0u);
        User &e = user(9);
        add(e, 1);
        EXPECT_TRUE(pass());
        EXPECT_EQ(e.fires, 1);
    }
}

TEST_F(Sched, ArrayObjectHelpers)
{
    enum Op { TruncateLength, Truncate, Remove, Free };
    struct Case {
        Op op;
        tn_uint32 length, arg;
        tn_bool result;
        std::vector<int> left, freed; // names in order, as read after the call
        bool failed;
    } cases[] = {
        {TruncateLength, 4, 2, 1, {0, 1}, {2, 3}, false}, {TruncateLength, 4, 4, 1, {0, 1, 2, 3}, {}, false},
        {TruncateLength, 4, 5, 0, {0, 1, 2, 3}, {}, false}, {Truncate, 3, 0, 1, {}, {0, 1, 2}, false},
        {Remove, 4, 1, 1, {0, 2, 3}, {1}, false}, {Remove, 4, 3, 1, {0, 1, 2}, {3}, false},
        {Remove, 4, 0xFFFFFFFFu, 0, {0, 1, 2, 3}, {}, false}, {Remove, 4, 5, 0, {0, 1, 2, 3}, {}, false},
        {Remove, 4, 4, 0, {}, {}, true}, // at the length it fails as tn_array_remove does
        {Remove, 0, 0xFFFFFFFFu, 0, {}, {}, true}, {Remove, 0, 0, 0, {}, {}, true},
        {Free, 3, 0, 1, {}, {0, 1, 2}, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "op " << c.op << " on " << c.length << " tasks, argument " << c.arg);
        std::vector<User> u(c.length);
        tn_scheduled_task_array a;
        tn_array_init(&a, sizeof(tn_scheduled_task));
        for (tn_uint32 i = 0; i < c.length; ++i) {
            u[i].name = static_cast<int>(i);
            tn_scheduled_task t = task_for(u[i], 0);
            ASSERT_TRUE(tn_array_catn(&a, &t, 1));
        }
        tn_bool result = 1;
        switch (c.op) {
        case TruncateLength: result = tn_scheduled_task_array_truncate_length_object(&a, c.arg); break;
        case Truncate: result = tn_scheduled_task_array_truncate_object(&a); break;
        case Remove: result = tn_scheduled_task_array_remove_object(&a, c.arg); break;
        case Free:
            tn_scheduled_task_array_free_object(&a);
            EXPECT_TRUE(tn_array_unallocated(&a));
            break;
        }
        EXPECT_EQ(result, c.result);
        EXPECT_EQ(tn_array_failed(&a), c.failed);
        std::vector<int> left, freed;
        for (tn_uint32 i = 0; i < tn_array_length(&a); ++i)
            left.push_back(static_cast<User *>(static_cast<tn_scheduled_task *>(tn_array_get_pos(&a, i))->user)->name);
        for (const auto &x : u) {
            if (x.frees) freed.push_back(x.name);
            EXPECT_LE(x.frees, 1);
        }
        EXPECT_EQ(left, c.left);
        EXPECT_EQ(freed, c.freed);
        tn_array_free(&a);
    }
    EXPECT_FALSE(tn_scheduled_task_array_truncate_length_object(nullptr, 0));
    EXPECT_FALSE(tn_scheduled_task_array_truncate_object(nullptr));
    EXPECT_FALSE(tn_scheduled_task_array_remove_object(nullptr, 0));
    tn_scheduled_task_array_free_object(nullptr);
    tn_scheduled_task_free(nullptr);
}

// Producers queue, change and take back tasks while the loop runs passes;
// every user must be let go exactly once in the end, and never fire after.
TEST_F(Sched, RequestsFromOtherThreadsWhileProcessRuns)
{
    constexpr int per_thread = 300;
    std::deque<User> mine[2];
    for (auto &m : mine) m.resize(per_thread);
    std::atomic<int> running{2};
    auto producer = [&](int w) {
        for (int i = 0; i < per_thread; ++i) {
            tn_scheduled_task t = task_for(mine[w][i], i % 2 ? 0 : 1);
            tn_uint32 id = 0;
            EXPECT_TRUE(tn_scheduler_set_scheduled_task(&s, &t, &id));
            if (i % 3 == 0) std::this_thread::yield();
            (void)tn_scheduler_modify_scheduled_task(&s, id, i % 4 ? 0 : now_sec() + 60);
            (void)tn_scheduler_get_scheduled_task(&s, id, nullptr);
            EXPECT_TRUE(tn_scheduler_remove_scheduled_task(&s, id));
        }
        running.fetch_sub(1);
    };
    std::thread a(producer, 0), b(producer, 1);
    while (running.load() > 0) (void)pass();
    a.join();
    b.join();
    for (int i = 0; i < 5 && tn_array_length(&s.tasks) + tn_array_length(&s.pending); ++i) (void)pass();
    EXPECT_EQ(tn_array_length(&s.tasks) + tn_array_length(&s.pending), 0u);
    int fired = 0;
    for (const auto &m : mine) {
        for (const auto &u : m) {
            EXPECT_EQ(u.frees, 1);
            fired += u.fires;
        }
    }
    EXPECT_GT(fired, 0);
}

// Nine tasks outgrow the room made at init in both lists; the sweep starts
// with the init itself.
TEST_F(Sched, InitSetAndPassUnderFailingAllocations)
{
    std::vector<User> u(9);
    tn_test::sweep_alloc_failures([&] {
        for (auto &x : u) x.fires = x.frees = 0;
        tn_scheduler sc;
        if (!tn_scheduler_init(&sc)) return false;
        bool ok = true;
        for (auto &x : u) {
            tn_scheduled_task t = task_for(x, 1);
            ok &= tn_scheduler_set_scheduled_task(&sc, &t, nullptr) != 0;
        }
        ok &= tn_scheduler_process(&sc) != 0;
        for (const auto &x : u) ok &= x.fires == 1;
        tn_scheduler_free(&sc);
        for (const auto &x : u) EXPECT_LE(x.frees, 1);
        return ok;
    });
}

} // namespace
