#include <tarnel_util/tn_scheduler.h>
#include "support/alloc.h"
#include <atomic>
#include <deque>
#include <functional>
#include <thread>
#include <vector>

namespace {
constexpr tn_time from_init = INT64_MIN, later = INT64_MAX; // from_init keeps the time that init sets
using Counts = std::pair<int, int>; // fires, frees
// One task's user argument: counts its fires and frees, and may act from inside its callback.
struct User {
    std::function<void(tn_time now, tn_time *time)> on_fire;
    int fires = 0, frees = 0;
    tn_uint32 id = 0;
    Counts counts() const { return {fires, frees}; }
};
void fire(tn_time now, tn_time *time, void *user)
{
    auto *u = static_cast<User *>(user);
    EXPECT_EQ(u->frees, 0) << "a task fired after its user was let go";
    ++u->fires;
    if (u->on_fire) u->on_fire(now, time);
}
void let_go(void *user)
{
    auto *u = static_cast<User *>(user);
    EXPECT_EQ(u->frees, 0) << "a user let go twice";
    ++u->frees;
}
struct Sched : tn_test::AllocTest {
    tn_scheduler s{};
    void SetUp() override
    {
        AllocTest::SetUp();
        ASSERT_TRUE(tn_scheduler_init(&s));
    }
    void TearDown() override
    {
        tn_scheduler_free(&s);
        AllocTest::TearDown();
    }
    tn_uint32 add(User &u, tn_time time, tn_uint32 id = 0) // the id the request got, or 0
    {
        tn_scheduled_task t;
        EXPECT_TRUE(tn_scheduled_task_init(&t, fire, &u, let_go));
        tn_scheduled_task_set_id(&t, id);
        if (time != from_init) tn_scheduled_task_set_time(&t, time);
        if (!tn_scheduler_set_scheduled_task(&s, &t, nullptr)) return 0;
        u.id = t.id;
        return u.id;
    }
    bool pass() { return tn_scheduler_process(&s); }
};
} // namespace
// The time value a callback leaves decides what comes next; a reset then lets go of all, calling none.
TEST_F(Sched, TimeValueDecidesWhatComesNext)
{
    const struct Case { const char *what; tn_time start; void (*act)(tn_time, tn_time *); int fires; bool stays; } cases[] = {
        {"present second, left alone", from_init, nullptr, 1, false},
        {"zero, left alone", 0, nullptr, 3, true},
        {"past, set to 0", 1, [](tn_time, tn_time *t) { *t = 0; }, 3, true},
        {"past, set later", 1, [](tn_time n, tn_time *t) { *t = n + 100; }, 1, true},
        {"past, set to now", 1, [](tn_time n, tn_time *t) { *t = n; }, 1, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        User u{c.act}, asked;
        EXPECT_NE(add(u, c.start), 0u);
        for (int i = 0; i < 3; ++i) EXPECT_TRUE(pass()) << "pass " << i;
        EXPECT_EQ(u.fires, c.fires);
        EXPECT_EQ(u.frees, c.stays ? 0 : 1);
        EXPECT_EQ(tn_scheduler_get_scheduled_task(&s, u.id, nullptr), c.stays ? 1 : 0);
        add(asked, 1);
        tn_scheduler_reset(&s); // lets go of both, calling neither
        EXPECT_EQ(u.fires, c.fires);
        EXPECT_EQ(u.frees, 1);
        EXPECT_EQ(asked.counts(), Counts(0, 1));
    }
}

// Oldest first. a's modify of its own task loses to the removal its unchanged value asks for; b removes its
// own task, then asks for a later time, which fails the pass. Ids wrap past 0 to 1. A replacement neither
// lets go of the user it replaces nor hides behind the table.
TEST_F(Sched, Requests)
{
    User a, b, c, d, e, f, spare;
    a.on_fire = [&](tn_time now, tn_time *) { EXPECT_TRUE(tn_scheduler_modify_scheduled_task(&s, a.id, now + 100)); };
    b.on_fire = [&](tn_time now, tn_time *t) {
        *t = now + 9;
        tn_scheduler_remove_scheduled_task(&s, b.id);
    };
    EXPECT_NE(add(a, 1), 0u);
    EXPECT_NE(add(b, 1), 0u);
    EXPECT_NE(add(c, 1), 0u);
    EXPECT_FALSE(pass()) << "b's later time for a removed task fails the pass";
    EXPECT_EQ(a.fires, 1);
    EXPECT_EQ(b.fires, 1);
    EXPECT_EQ(c.fires, 0) << "the rest of the pass is skipped";
    EXPECT_TRUE(pass());
    EXPECT_TRUE(pass());
    EXPECT_EQ(a.counts(), Counts(1, 1)) << "a's modify lost to its removal";
    EXPECT_EQ(b.counts(), Counts(1, 1));
    EXPECT_EQ(c.counts(), Counts(1, 1));
    s.last_id = 0xFFFFFFFEu;
    EXPECT_EQ(add(spare, later), 0xFFFFFFFFu);
    EXPECT_EQ(add(d, later), 1u) << "ids wrap past 0";
    EXPECT_TRUE(pass());
    EXPECT_TRUE(tn_scheduler_remove_scheduled_task(&s, 0));
    EXPECT_TRUE(tn_scheduler_remove_scheduled_task(&s, 99));
    EXPECT_FALSE(tn_scheduler_modify_scheduled_task(&s, 0, 7));
    EXPECT_FALSE(tn_scheduler_modify_scheduled_task(&s, 99, 7));
    EXPECT_FALSE(tn_scheduler_get_scheduled_task(&s, 0, nullptr));
    EXPECT_FALSE(tn_scheduler_get_scheduled_task(&s, 99, nullptr));
    tn_scheduled_task got;
    EXPECT_EQ(add(e, 1, 1), 1u);
    EXPECT_EQ(add(f, 1, 1), 1u) << "replaces e's request";
    EXPECT_TRUE(tn_scheduler_get_scheduled_task(&s, 1, &got));
    EXPECT_EQ(got.user, &f) << "the pending replacement hides behind the table";
    EXPECT_TRUE(pass());
    EXPECT_TRUE(tn_scheduler_remove_scheduled_task(&s, 1)); // waits for the next pass
    EXPECT_FALSE(tn_scheduler_get_scheduled_task(&s, 1, &got));
    EXPECT_FALSE(tn_scheduler_modify_scheduled_task(&s, 1, 5));
    tn_scheduler_reset(&s);
    EXPECT_EQ(d.counts(), Counts(0, 0)) << "f's task replaced d's, not letting d go";
    EXPECT_EQ(e.counts(), Counts(0, 0)) << "f's request replaced e's, not letting e go";
    EXPECT_EQ(f.counts(), Counts(1, 1));
}

// Two producers queue, change and take back tasks while passes run; a reset then lets go of each user once.
TEST_F(Sched, RequestsFromOtherThreadsWhileProcessRuns)
{
    std::deque<User> mine[2];
    std::atomic<bool> done{false};
    auto producer = [&](int w) {
        for (int i = 0; i < 300; ++i) {
            const tn_uint32 id = add(mine[w].emplace_back(), i % 2 ? 0 : 1);
            EXPECT_NE(id, 0u);
            tn_scheduler_modify_scheduled_task(&s, id, i % 4 ? 0 : later); // may come after the removal ran
            EXPECT_TRUE(tn_scheduler_remove_scheduled_task(&s, id));
        }
    };
    std::thread loop([&] {
        while (!done) (void)pass();
    });
    std::thread other(producer, 1);
    producer(0);
    other.join();
    done = true;
    loop.join();
    tn_scheduler_reset(&s);
    for (const auto &m : mine)
        for (const auto &u : m) EXPECT_EQ(u.frees, 1);
}
