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
    if (++u->fires, u->on_fire) u->on_fire(now, time);
}
void let_go(void *user) { EXPECT_EQ(static_cast<User *>(user)->frees++, 0) << "a user let go twice"; }
struct Sched : tn_test::AllocTest {
    tn_scheduler s{};
    void SetUp() override { AllocTest::SetUp(); ASSERT_TRUE(tn_scheduler_init(&s)); }
    void TearDown() override { tn_scheduler_free(&s), AllocTest::TearDown(); }
    tn_uint32 add(User &u, tn_time time, tn_uint32 id = 0) // the id the request got, or 0
    {
        tn_scheduled_task t;
        EXPECT_TRUE(tn_scheduled_task_init(&t, fire, &u, let_go));
        if (tn_scheduled_task_set_id(&t, id), time != from_init) tn_scheduled_task_set_time(&t, time);
        return tn_scheduler_set_scheduled_task(&s, &t, nullptr) ? (u.id = t.id) : 0;
    }
    bool pass() { return tn_scheduler_process(&s); }
};
} // namespace
// The time value a callback leaves decides what comes next; a reset then lets go of all, calling none.
TEST_F(Sched, TimeValueDecidesWhatComesNext)
{
    struct Case { const char *what; tn_time start; void (*act)(tn_time, tn_time *); int fires; bool stays; } cases[] = {
        {"present second, left alone", from_init, nullptr, 1, false}, {"zero, left alone", 0, nullptr, 3, true},
        {"past, set to 0", 1, [](tn_time, tn_time *t) { *t = 0; }, 3, true},
        {"past, set later", 1, [](tn_time n, tn_time *t) { *t = n + 100; }, 1, true},
        {"past, set to now", 1, [](tn_time n, tn_time *t) { *t = n; }, 1, false}};
    for (const auto &c : cases) {
        User u{c.act}, asked; // both let go of by the reset
        EXPECT_TRUE(add(u, c.start) && pass() && pass() && pass()) << c.what;
        EXPECT_EQ(std::pair(u.counts(), tn_scheduler_get_scheduled_task(&s, u.id, nullptr)),
                  std::pair(Counts(c.fires, !c.stays), tn_bool(c.stays))) << c.what;
        add(asked, 1), tn_scheduler_reset(&s);
        EXPECT_EQ(std::pair(u.counts(), asked.counts()), std::pair(Counts(c.fires, 1), Counts(0, 1))) << c.what;
    }
}

// Oldest first. a's modify of its own task loses to the removal its unchanged value asks for; b removes its
// own task, then asks for a later time, which fails the pass. Ids wrap past 0 to 1. A replacement neither
// lets go of the user it replaces nor hides behind the table.
TEST_F(Sched, Requests)
{
    User a, b, c, d, e, f, spare;
    a.on_fire = [&](tn_time now, tn_time *) { EXPECT_TRUE(tn_scheduler_modify_scheduled_task(&s, a.id, now + 100)); };
    b.on_fire = [&](tn_time now, tn_time *t) { *t = now + 9, tn_scheduler_remove_scheduled_task(&s, b.id); };
    EXPECT_TRUE(add(a, 1) && add(b, 1) && add(c, 1) && !pass());
    EXPECT_EQ(std::vector<int>({a.fires, b.fires, c.fires}), std::vector<int>({1, 1, 0})) << "the rest is skipped";
    EXPECT_TRUE(pass() && pass());
    EXPECT_EQ(std::vector<Counts>({a.counts(), b.counts(), c.counts()}), std::vector<Counts>(3, {1, 1}));
    s.last_id = 0xFFFFFFFEu;
    EXPECT_TRUE(add(spare, later) == 0xFFFFFFFFu && add(d, later) == 1u);
    EXPECT_TRUE(pass() && tn_scheduler_remove_scheduled_task(&s, 0) && tn_scheduler_remove_scheduled_task(&s, 99));
    EXPECT_FALSE(tn_scheduler_modify_scheduled_task(&s, 0, 7) || tn_scheduler_modify_scheduled_task(&s, 99, 7) ||
                 tn_scheduler_get_scheduled_task(&s, 0, nullptr) || tn_scheduler_get_scheduled_task(&s, 99, nullptr));
    tn_scheduled_task got;
    EXPECT_TRUE(add(e, 1, 1) == 1 && add(f, 1, 1) == 1 && tn_scheduler_get_scheduled_task(&s, 1, &got));
    EXPECT_TRUE(got.user == &f && pass() && tn_scheduler_remove_scheduled_task(&s, 1)); // the removal waits
    EXPECT_FALSE(tn_scheduler_get_scheduled_task(&s, 1, &got) || tn_scheduler_modify_scheduled_task(&s, 1, 5));
    EXPECT_EQ((tn_scheduler_reset(&s), std::vector<Counts>({d.counts(), e.counts(), f.counts()})),
              std::vector<Counts>({{0, 0}, {0, 0}, {1, 1}})) << "f's request replaced e's, and then d's task";
}

// Two producers queue, change and take back tasks while passes run; a reset then lets go of each user once.
TEST_F(Sched, RequestsFromOtherThreadsWhileProcessRuns)
{
    std::deque<User> mine[2];
    std::atomic<bool> done{false};
    auto producer = [&](int w) {
        for (int i = 0; i < 300; ++i) {
            const tn_uint32 id = add(mine[w].emplace_back(), i % 2 ? 0 : 1);
            EXPECT_TRUE(id && (tn_scheduler_modify_scheduled_task(&s, id, i % 4 ? 0 : later),
                               tn_scheduler_remove_scheduled_task(&s, id)));
        }
    };
    std::thread loop([&] { while (!done) (void)pass(); }), other(producer, 1);
    producer(0), other.join(), done = true, loop.join(), tn_scheduler_reset(&s);
    for (const auto &m : mine) for (const auto &u : m) EXPECT_EQ(u.frees, 1);
}

// Four producers queue, change and take back tasks while the loop's thread passes and resets: a reset takes the
// table out under the lock and lets go of each user once, calling no callback.
TEST_F(Sched, ResetWhileOtherThreadsSendRequests)
{
    std::deque<User> mine[4];
    std::atomic<bool> done{false};
    auto producer = [&](int w) {
        for (int i = 0; i < 300; ++i) {
            const tn_uint32 id = add(mine[w].emplace_back(), later);
            tn_scheduler_modify_scheduled_task(&s, id, later), tn_scheduler_remove_scheduled_task(&s, id);
        }
    };
    std::thread loop([&] { while (!done) (void)pass(), tn_scheduler_reset(&s); });
    std::vector<std::thread> producers;
    for (int w = 0; w < 4; ++w) producers.emplace_back(producer, w);
    for (auto &p : producers) p.join();
    done = true, loop.join(), tn_scheduler_reset(&s);
    for (const auto &m : mine) for (const auto &u : m) EXPECT_EQ(u.counts(), Counts(0, 1));
}
