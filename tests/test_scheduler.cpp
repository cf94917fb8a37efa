#include <tarnel_util/tn_scheduler.h>

#include "tn_test_alloc.h"

#include <atomic>
#include <deque>
#include <functional>
#include <thread>
#include <vector>

namespace {

constexpr tn_time from_init = INT64_MIN, later = INT64_MAX; // from_init keeps the second init sets
using Act = void (*)(tn_time now, tn_time *time);

// One task's user argument: counts its fires and frees, and may act from inside its callback.
struct User {
    int name = 0, fires = 0, frees = 0;
    std::function<void(tn_time now, tn_time *time)> on_fire;
    tn_uint32 id = 0;
};
void fire(tn_time now, tn_time *time, void *user)
{
    auto *u = static_cast<User *>(user);
    EXPECT_EQ(u->frees, 0) << "task " << u->name << " fired after its user was let go";
    if (++u->fires, u->on_fire) u->on_fire(now, time);
}
void let_go(void *user) { EXPECT_EQ(static_cast<User *>(user)->frees++, 0) << "a user let go twice"; }
using Counts = std::pair<int, int>; // fires, frees
Counts counts(const User &u) { return {u.fires, u.frees}; }

class Sched : public tn_test::AllocTest {
protected:
    tn_scheduler s{};
    std::deque<User> users; // addresses stay put
    void SetUp() override { AllocTest::SetUp(); ASSERT_TRUE(tn_scheduler_init(&s)); }
    void TearDown() override { tn_scheduler_free(&s), AllocTest::TearDown(); }
    User &user(int name, Act act = nullptr) { return users.emplace_back(User{name, 0, 0, act}); }
    tn_uint32 add(User &u, tn_time time, tn_uint32 id = 0)
    {
        tn_scheduled_task t;
        EXPECT_TRUE(tn_scheduled_task_init(&t, fire, &u, let_go));
        if (tn_scheduled_task_set_id(&t, id), time != from_init) tn_scheduled_task_set_time(&t, time);
        return tn_scheduler_set_scheduled_task(&s, &t, nullptr) ? (u.id = t.id) : 0;
    }
    bool pass() { return tn_scheduler_process(&s); }
};

// The time value a callback leaves decides what comes next; a reset then lets go of all, calling none.
TEST_F(Sched, TimeValueDecidesWhatComesNext)
{
    struct Case { const char *what; tn_time start; Act act; int fires; bool stays; } cases[] = {
        {"present second, left alone", from_init, nullptr, 1, false}, {"zero, left alone", 0, nullptr, 3, true},
        {"far future", later, nullptr, 0, true}, {"past, set to 0", 1, [](tn_time, tn_time *t) { *t = 0; }, 3, true},
        {"past, set later", 1, [](tn_time n, tn_time *t) { *t = n + 100; }, 1, true},
        {"past, set to now", 1, [](tn_time n, tn_time *t) { *t = n; }, 1, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        User &u = user(0, c.act), &asked = user(1);
        add(u, c.start);
        for (int i = 0; i < 3; ++i) EXPECT_TRUE(pass());
        EXPECT_EQ(std::make_pair(counts(u), tn_scheduler_get_scheduled_task(&s, u.id, nullptr)),
                  std::make_pair(Counts(c.fires, c.stays ? 0 : 1), tn_bool(c.stays)));
        add(asked, 1), tn_scheduler_reset(&s);
        EXPECT_EQ(std::make_pair(counts(u), counts(asked)), std::make_pair(Counts(c.fires, 1), Counts(0, 1)));
    }
}

// Oldest first. 1's modify of its own task loses to the removal its unchanged value asks for; 2 removes its
// own task, then asks for a later time, which fails the pass. Ids wrap past 0 to 1. A replacement neither
// lets go of the user it replaces nor hides behind the table.
TEST_F(Sched, Requests)
{
    User &a = user(1), &b = user(2), &c = user(3), &d = user(4), &e = user(5), &f = user(6);
    a.on_fire = [&](tn_time now, tn_time *) { EXPECT_TRUE(tn_scheduler_modify_scheduled_task(&s, a.id, now + 100)); };
    b.on_fire = [&](tn_time now, tn_time *t) { *t = now + 9, tn_scheduler_remove_scheduled_task(&s, b.id); };
    add(a, 1), add(b, 1), add(c, 1);
    EXPECT_FALSE(pass());
    EXPECT_EQ(std::vector<int>({a.fires, b.fires, c.fires}), std::vector<int>({1, 1, 0})) << "the rest is skipped";
    EXPECT_TRUE(pass() && pass());
    for (const User *u : {&a, &b, &c}) EXPECT_EQ(counts(*u), Counts(1, 1)) << "task " << u->name;
    s.last_id = 0xFFFFFFFEu;
    EXPECT_TRUE(add(user(0), later) == 0xFFFFFFFFu && add(d, later) == 1u);
    EXPECT_TRUE(pass() && tn_scheduler_remove_scheduled_task(&s, 0) && tn_scheduler_remove_scheduled_task(&s, 99));
    EXPECT_FALSE(tn_scheduler_modify_scheduled_task(&s, 0, 7) || tn_scheduler_modify_scheduled_task(&s, 99, 7) ||
                 tn_scheduler_get_scheduled_task(&s, 0, nullptr) || tn_scheduler_get_scheduled_task(&s, 99, nullptr));
    tn_scheduled_task got;
    EXPECT_TRUE(add(e, 1, 1) == 1 && add(f, 1, 1) == 1);
    EXPECT_TRUE(tn_scheduler_get_scheduled_task(&s, 1, &got) && got.user == &f);
    EXPECT_TRUE(pass() && tn_scheduler_remove_scheduled_task(&s, 1));
    EXPECT_FALSE(tn_scheduler_get_scheduled_task(&s, 1, &got) || tn_scheduler_modify_scheduled_task(&s, 1, 5));
    EXPECT_TRUE(pass());
    EXPECT_EQ(std::vector<Counts>({counts(d), counts(e), counts(f)}), std::vector<Counts>({{0, 0}, {0, 0}, {1, 1}}));
}

// The requests' own list serves as the array, holding one task per user in order.
TEST_F(Sched, ArrayObjectHelpers)
{
    enum Op { Truncate, Remove, Free }; // want: the result, the length after, users let go, the failed flag
    struct Case { Op op; tn_uint32 length, arg; std::vector<long> want; } cases[] = {
        {Truncate, 4, 2, {1, 2, 2, 0}}, {Truncate, 4, 4, {1, 4, 0, 0}}, {Truncate, 4, 5, {0, 4, 0, 0}},
        {Free, 3, 0, {1, 0, 3, 0}},     {Remove, 4, 1, {1, 3, 1, 0}},   {Remove, 4, 5, {0, 4, 0, 0}},
        {Remove, 4, 0xFFFFFFFFu, {0, 4, 0, 0}}, {Remove, 4, 4, {0, 0, 0, 1}}, {Remove, 0, 0xFFFFFFFFu, {0, 0, 0, 1}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "op " << c.op << " on " << c.length << " tasks, argument " << c.arg);
        tn_scheduled_task_array *a = &s.pending;
        for (int i = 0; i < int(c.length); ++i) add(user(i), 1);
        const long result = c.op == Truncate ? tn_scheduled_task_array_truncate_length_object(a, c.arg)
                            : c.op == Remove ? tn_scheduled_task_array_remove_object(a, c.arg)
                                             : (tn_scheduled_task_array_free_object(a), tn_array_unallocated(a));
        long freed = 0;
        for (const auto &u : users) freed += u.frees;
        EXPECT_EQ(std::vector<long>({result, tn_array_length(a), freed, tn_array_failed(a)}), c.want);
        tn_array_free(a), users.clear();
    }
}

// Two producers queue, change and take back tasks while passes run; free then lets go of each user once.
TEST_F(Sched, RequestsFromOtherThreadsWhileProcessRuns)
{
    std::deque<User> mine[2];
    std::atomic<bool> done{false};
    auto producer = [&](int w) {
        for (int i = 0; i < 300; ++i) {
            tn_uint32 id = add(mine[w].emplace_back(), i % 2 ? 0 : 1);
            (void)tn_scheduler_modify_scheduled_task(&s, id, i % 4 ? 0 : later);
            EXPECT_TRUE(id && tn_scheduler_remove_scheduled_task(&s, id));
        }
    };
    std::thread loop([&] { while (!done) (void)pass(); }), other(producer, 1);
    producer(0);
    other.join(), done = true, loop.join(), tn_scheduler_free(&s);
    for (const auto &m : mine) for (const auto &u : m) EXPECT_EQ(u.frees, 1);
    ASSERT_TRUE(tn_scheduler_init(&s));
}

} // namespace
