#include <tarnel_util/tn_scheduler.h>
#include <tarnel_util/tn_time.h>
#include "support/alloc.h"
#include <algorithm>
#include <atomic>
#include <deque>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {
constexpr tn_time from_init = INT64_MIN, later = INT64_MAX; // from_init keeps the time that init sets
// One task's user argument: counts its fires and frees, and may act from inside its callback.
struct User {
    std::function<void(tn_time now, tn_time *time)> on_fire;
    int fires = 0, frees = 0;
    tn_uint32 id = 0;
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
    tn_uint32 add(User &u, tn_time time) // the id the request got, or 0
    {
        tn_scheduled_task t;
        EXPECT_TRUE(tn_scheduled_task_init(&t, fire, &u, let_go));
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
        EXPECT_EQ(asked.fires, 0);
        EXPECT_EQ(asked.frees, 1);
    }
}

// Four producers queue, change and take back tasks, due or not, while the loop's thread passes and resets: a reset
// takes the table out under the lock, and each user is let go once (fire checks that none fires after).
TEST_F(Sched, RequestsAndResetsFromOtherThreadsWhileProcessRuns)
{
    std::deque<User> mine[4];
    std::atomic<bool> done{false};
    auto producer = [&](int w) {
        for (int i = 0; i < 300; ++i) {
            const tn_time times[] = {0, 1, later};
            const tn_uint32 id = add(mine[w].emplace_back(), times[i % 3]);
            EXPECT_NE(id, 0u);
            tn_scheduler_modify_scheduled_task(&s, id, i % 4 ? 0 : later); // may come after the removal ran
            EXPECT_TRUE(tn_scheduler_remove_scheduled_task(&s, id));
        }
    };
    std::thread loop([&] {
        for (int i = 0; !done; ++i) {
            (void)pass();
            if (i % 2) tn_scheduler_reset(&s);
        }
    });
    std::vector<std::thread> producers;
    for (int w = 0; w < 4; ++w) producers.emplace_back(producer, w);
    for (auto &p : producers) p.join();
    done = true;
    loop.join();
    tn_scheduler_reset(&s);
    for (const auto &m : mine)
        for (const auto &u : m) EXPECT_EQ(u.frees, 1);
}

namespace {
// The scheduler as first written, over plain vectors: every request searches, every pass walks. The reference for
// the indexed passes, which only large tables and many requests reach.
struct Model {
    std::vector<tn_scheduled_task> table, pending;
    tn_uint32 last_id = 0;
    static tn_scheduled_task *in(std::vector<tn_scheduled_task> &v, tn_uint32 id)
    {
        for (auto &t : v)
            if (t.id == id) return &t;
        return nullptr;
    }
    tn_uint32 set(tn_scheduled_task t)
    {
        if (!t.id) t.id = ++last_id ? last_id : (last_id = 1);
        else if (auto *p = in(pending, t.id)) pending.erase(pending.begin() + (p - pending.data()));
        return pending.emplace_back(t).id;
    }
    bool change(tn_uint32 id, tn_time time, bool remove) // a waiting request changes in place
    {
        tn_scheduled_task *p = in(pending, id), *t = in(table, id);
        if (!id || (!p && !t)) return remove;
        if (!p) p = &pending.emplace_back(*t);
        if (remove) p->removed = 1;
        else if (p->removed) return false;
        else p->time = time;
        return true;
    }
    bool modify(tn_uint32 id, tn_time time) { return change(id, time, false); }
    bool remove(tn_uint32 id) { return change(id, 0, true); }
    bool get(tn_uint32 id, tn_scheduled_task *out)
    {
        const tn_scheduled_task *f = in(pending, id) ? in(pending, id) : in(table, id);
        if (!f || f->removed) return false;
        *out = *f;
        return true;
    }
    void apply()
    {
        for (auto &r : pending) {
            tn_scheduled_task *t = in(table, r.id);
            if (!t) table.insert(table.begin(), r);
            else if (!t->removed) *t = r;
        }
        pending.clear();
        for (size_t i = table.size(); i-- > 0;) {
            if (!table[i].removed) continue;
            tn_scheduled_task_free(&table[i]);
            table.erase(table.begin() + tn_int64(i));
        }
    }
    bool process()
    {
        apply();
        for (size_t i = table.size(); i-- > 0;) {
            tn_time now, time = table[i].time;
            tn_time_sec(&now);
            if (time && now < time) continue;
            table[i].callback(now, &time, table[i].user);
            if (!change(table[i].id, time, !(time > now || time == 0))) return false;
        }
        return true;
    }
    void reset()
    {
        apply();
        for (auto &t : table) tn_scheduled_task_free(&t);
        table.clear();
    }
};
struct Lib {
    tn_scheduler s{};
    tn_uint32 &last_id = s.last_id;
    Lib() { EXPECT_TRUE(tn_scheduler_init(&s)); }
    ~Lib() { tn_scheduler_free(&s); }
    tn_uint32 set(tn_scheduled_task t)
    {
        tn_uint32 id = 0;
        tn_scheduler_set_scheduled_task(&s, &t, &id);
        return id;
    }
    bool modify(tn_uint32 id, tn_time time) { return tn_scheduler_modify_scheduled_task(&s, id, time); }
    bool remove(tn_uint32 id) { return tn_scheduler_remove_scheduled_task(&s, id); }
    bool get(tn_uint32 id, tn_scheduled_task *out) { return tn_scheduler_get_scheduled_task(&s, id, out); }
    bool process() { return tn_scheduler_process(&s); }
    void reset() { tn_scheduler_reset(&s); }
};
// One scripted run: callbacks draw requests from a seeded generator, so two systems that fire alike act alike, and
// everything either reports goes into one log.
template <class S> struct Script {
    struct Who { Script *run; int tag; tn_uint32 id; };
    S sys;
    std::mt19937 rng{11};
    std::deque<Who> users;
    std::vector<tn_uint32> ids;
    std::vector<std::string> log;
    unsigned below(unsigned k) { return rng() % k; }
    tn_time any_time() { const tn_time times[] = {0, 1, later}; return times[below(3)]; }
    tn_uint32 any_id() { return below(8) ? ids[below(tn_uint32(ids.size()))] : below(2) ? 0 : 0xBADu; }
    static void let_go(void *user) { auto *w = static_cast<Who *>(user); w->run->log.push_back("free " + std::to_string(w->tag)); }
    static void fire(tn_time, tn_time *time, void *user)
    {
        auto *w = static_cast<Who *>(user);
        Script &r = *w->run;
        r.log.push_back("fire " + std::to_string(w->tag));
        for (unsigned k = r.below(4); k-- > 0;) r.request(w->id);
        // Mostly a task that is no longer known does not ask to stay, which would end the pass.
        const tn_time after[] = {*time, 0, later, 1};
        tn_scheduled_task self;
        *time = r.sys.get(w->id, &self) || r.below(16) == 0 ? after[r.below(4)] : 1;
    }
    void add(tn_uint32 id)
    {
        tn_scheduled_task t;
        Who &w = users.emplace_back(Who{this, int(users.size()), 0});
        tn_scheduled_task_init(&t, fire, &w, let_go);
        tn_scheduled_task_set_time(&t, any_time());
        t.id = id;
        ids.push_back(w.id = sys.set(t));
        log.push_back("set " + std::to_string(w.tag) + " as " + std::to_string(w.id));
    }
    void request(tn_uint32 own)
    {
        tn_scheduled_task got{};
        const tn_uint32 id = below(4) ? any_id() : own;
        switch (below(6)) {
        case 0: return add(0);
        case 1: return add(id);
        case 2: return log.push_back("modify " + std::to_string(id) + ": " + std::to_string(sys.modify(id, any_time())));
        case 3: return log.push_back("remove " + std::to_string(id) + ": " + std::to_string(sys.remove(id)));
        default:
            const bool found = sys.get(id, &got);
            return log.push_back("get " + std::to_string(id) + ": " + (found ? std::to_string(static_cast<Who *>(got.user)->tag) : "-"));
        }
    }
    Script(int tasks, bool wrap)
    {
        for (int i = 0; i < tasks; ++i) add(0);
        if (wrap) sys.last_id = 0xFFFFFFF0u; // new ids soon meet those of waiting and running tasks
        for (int pass = 0; pass < 6; ++pass) log.push_back("pass " + std::to_string(sys.process()));
        sys.reset();
        log.push_back("reset");
    }
};
using SchedulerPass = tn_test::AllocTest;
} // namespace

// Callbacks that add, replace, change, remove and look up tasks, their own among them, and leave all kinds of time
// values: the same callbacks in the same order, the same answers and the same users let go as the reference.
TEST_F(SchedulerPass, ManyTasksAgreeWithTheSearchingReference)
{
    for (int tasks : {20, 300, 1500})
        for (bool wrap : {false, true}) {
            const Script<Lib> lib(tasks, wrap);
            const Script<Model> model(tasks, wrap);
            const auto diverge = std::mismatch(lib.log.begin(), lib.log.end(), model.log.begin(), model.log.end());
            ASSERT_TRUE(diverge.first == lib.log.end() && diverge.second == model.log.end())
                << tasks << " tasks" << (wrap ? ", ids wrapping" : "") << ": at entry " << diverge.first - lib.log.begin()
                << " the library logs '" << (diverge.first == lib.log.end() ? "(end)" : *diverge.first)
                << "' and the reference '" << (diverge.second == model.log.end() ? "(end)" : *diverge.second) << "'";
        }
}
