// tn_array against a std::vector model. The first input byte picks the
// element size (1, 3, 4 or 8); then each step is an operation byte and an
// operand byte, followed by the operation's elements if it takes any. The top
// bit of the operation byte makes every allocation during that step fail.
// After each step the array must hold exactly the model's bytes and failed
// flag, and an array that is failed must have kept its storage.
#include <tarnel_util/tn_alloc.h>
#include <tarnel_util/tn_array.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

bool refuse_allocations;
void *fuzz_alloc(tn_uint32 size) { return refuse_allocations ? nullptr : std::malloc(size); }
void fuzz_free(void *block) { std::free(block); }

unsigned step;
[[noreturn]] void fail(const char *what)
{
    std::fprintf(stderr, "fuzz_array: step %u: check failed: %s\n", step, what);
    std::abort();
}
#define CHECK(condition) ((condition) ? (void)0 : fail(#condition))

struct Input {
    const std::uint8_t *at;
    size_t left;
    bool byte(unsigned *out)
    {
        if (!left) return false;
        *out = *at++;
        --left;
        return true;
    }
    const std::uint8_t *bytes(size_t count)
    {
        if (left < count) return nullptr;
        const std::uint8_t *run = at;
        at += count;
        left -= count;
        return run;
    }
};

// The order of a step: the default comparators over the first `key` bytes
// of each element, which may be fewer than the element has, so that elements
// can compare equal and still differ. Counts the library's calls.
struct Order {
    tn_uint32 key;
    bool reversed;
    unsigned calls;

    int operator()(const std::uint8_t *a, const std::uint8_t *b) const
    {
        int d = std::memcmp(a, b, key);
        return reversed ? -d : d;
    }
};

tn_int32 compare(const void *a, const void *b, void *user)
{
    auto *order = static_cast<Order *>(user);
    ++order->calls;
    return order->reversed ? tn_array_comparator_defaultr(a, b, &order->key)
                           : tn_array_comparator_default(a, b, &order->key);
}

struct Model {
    std::vector<std::uint8_t> bytes; // the used bytes, kept while failed too
    bool failed = false;
    size_t size = 1;

    size_t count() const { return bytes.size() / size; }
    const std::uint8_t *at(size_t position) const { return bytes.data() + position * size; }
    // The elements in byte order, to compare as multisets.
    std::vector<const std::uint8_t *> elements() const
    {
        std::vector<const std::uint8_t *> all;
        for (size_t i = 0; i < count(); ++i) all.push_back(at(i));
        std::sort(all.begin(), all.end(), [this](const std::uint8_t *a, const std::uint8_t *b) {
            return std::memcmp(a, b, size) < 0;
        });
        return all;
    }

    // The binary search that places a new element, with its comparisons.
    size_t sorted_position(const std::uint8_t *element, const Order &order, unsigned *calls) const
    {
        size_t n = count();
        if (!n) return 0;
        size_t low = 0, high = n - 1, middle = 0;
        while (high != 0) {
            middle = (low + high) / 2;
            ++*calls;
            int r = order(element, at(middle));
            if (r == 0) break;
            if (r > 0) {
                if (low == middle) {
                    ++middle;
                    break;
                }
                low = middle;
            } else {
                if (high == middle) break;
                high = middle;
            }
            if (low == high) break;
        }
        ++*calls;
        return middle + (order(element, at(middle)) > 0 ? 1 : 0);
    }
};

// The quicksort is not stable, so with a short key the model cannot tell
// the exact outcome: the array must be in order and hold the same elements,
// and then the model takes its order over.
void check_and_take_sort(Model &model, const tn_array &array, const Order &order)
{
    Model sorted = model;
    sorted.bytes.assign(array.data, array.data + array.length);
    for (size_t i = 1; i < sorted.count(); ++i) CHECK(order(sorted.at(i - 1), sorted.at(i)) <= 0);
    auto mine = model.elements(), theirs = sorted.elements();
    for (size_t i = 0; i < mine.size(); ++i) CHECK(std::memcmp(mine[i], theirs[i], model.size) == 0);
    model.bytes = sorted.bytes;
}

// Inserting count elements at position: the result the array must give, with
// the model brought along. Growth, and so failure, follows the capacity.
tn_bool model_insert(Model &model, const tn_array &array, const std::uint8_t *elements,
                     size_t count, size_t position)
{
    if (!count) return 1;
    if (model.failed || position > model.count()) return 0;
    size_t total = model.bytes.size() + count * model.size;
    if (refuse_allocations && array.capacity < total) {
        model.failed = true;
        return 0;
    }
    model.bytes.insert(model.bytes.begin() + static_cast<std::ptrdiff_t>(position * model.size),
                       elements, elements + count * model.size);
    return 1;
}

tn_uint32 position_from(unsigned operand, const Model &model)
{
    if (operand == 255) return 0xFFFFFFFFu;
    return static_cast<tn_uint32>(operand % (model.count() + 2));
}

void check_same(const tn_array &array, const Model &model)
{
    CHECK(array.element_size == model.size);
    CHECK((array.failed != 0) == model.failed);
    CHECK(array.length == model.bytes.size());
    CHECK(array.length <= array.capacity);
    CHECK(model.bytes.empty() || std::memcmp(array.data, model.bytes.data(), array.length) == 0);
    CHECK(tn_array_length(&array) == (model.failed ? 0 : model.count()));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, size_t size)
{
    static const tn_uint32 sizes[] = {1, 3, 4, 8};
    tn_alloc_set_alloc_handler(fuzz_alloc);
    tn_alloc_set_free_handler(fuzz_free);
    Input in{data, size};
    unsigned code, operand;
    if (!in.byte(&code)) return 0;
    Model model;
    model.size = sizes[code & 3];
    tn_array array;
    tn_array_init(&array, static_cast<tn_uint32>(model.size));
    std::vector<std::uint8_t> made_up;

    for (step = 0; in.byte(&code) && in.byte(&operand); ++step) {
        refuse_allocations = code & 0x80;
        const tn_uchar *data_before = array.data;
        tn_uint32 capacity_before = array.capacity;
        Order order{static_cast<tn_uint32>(operand & 0x40 ? 1 : model.size), (operand & 0x80) != 0, 0};
        tn_bool got = 0, expected = 0;
        switch ((code & 0x7F) % 9) {
        case 0: { // catn, of a few elements from the input or of many made up
            size_t count = operand % 9;
            const std::uint8_t *elements = in.bytes(count * model.size);
            if (operand & 0x40) {
                // Long arrays, where growth by an eighth outgrows the 128-byte
                // rounding.
                count = (operand & 0x3F) * 4;
                made_up.resize(count * model.size);
                for (size_t i = 0; i < made_up.size(); ++i) made_up[i] = static_cast<std::uint8_t>(i * 7 + step);
                elements = made_up.data();
            }
            if (!elements) break;
            expected = model_insert(model, array, elements, count, model.count());
            got = tn_array_catn(&array, elements, static_cast<tn_uint32>(count));
            break;
        }
        case 1: { // insertn
            unsigned where;
            if (!in.byte(&where)) break;
            size_t count = operand % 9;
            tn_uint32 position = position_from(where, model);
            const std::uint8_t *elements = in.bytes(count * model.size);
            if (!elements) break;
            expected = model_insert(model, array, elements, count, position);
            got = tn_array_insertn(&array, elements, static_cast<tn_uint32>(count), position);
            break;
        }
        case 2: { // remove: a bad position sets the flag
            tn_uint32 position = position_from(operand, model);
            if (!model.failed && position >= model.count()) {
                model.failed = true;
            } else if (!model.failed) {
                auto from = model.bytes.begin() + static_cast<std::ptrdiff_t>(position * model.size);
                model.bytes.erase(from, from + static_cast<std::ptrdiff_t>(model.size));
                expected = 1;
            }
            got = tn_array_remove(&array, position);
            break;
        }
        case 3: // remove_end: an empty array does not set the flag
            if (!model.failed && model.count()) {
                model.bytes.resize(model.bytes.size() - model.size);
                expected = 1;
            }
            got = tn_array_remove_end(&array);
            break;
        case 4: { // seto: never grows, never sets the flag
            tn_uint32 position = position_from(operand, model);
            const std::uint8_t *element = in.bytes(model.size);
            if (!element) break;
            if (!model.failed && position < model.count()) {
                std::memcpy(model.bytes.data() + position * model.size, element, model.size);
                expected = 1;
            }
            got = tn_array_seto(&array, element, position);
            break;
        }
        case 5: { // truncate_length: works on a failed array too
            tn_uint32 count = position_from(operand, model);
            if (count <= model.count()) {
                model.bytes.resize(count * model.size);
                expected = 1;
            }
            got = tn_array_truncate_length(&array, count);
            break;
        }
        case 6: // sort: a work area that cannot be had leaves all as it was
            // The quicksort is quadratic on sorted input; long arrays would
            // only slow the fuzzer down.
            if (model.count() > 256) continue;
            got = tn_array_sort(&array, compare, &order);
            expected = !model.failed && (model.count() < 2 || !refuse_allocations);
            if (got && expected) check_and_take_sort(model, array, order);
            break;
        case 7: { // inserto_in_sort
            const std::uint8_t *element = in.bytes(model.size);
            if (!element) break;
            unsigned calls = 0;
            if (!model.failed) {
                size_t position = model.sorted_position(element, order, &calls);
                expected = model_insert(model, array, element, 1, position);
            }
            got = tn_array_inserto_in_sort(&array, element, compare, &order);
            CHECK(order.calls == calls);
            break;
        }
        default: // free, the only way out of the failed state
            model.bytes.clear();
            model.failed = false;
            tn_array_free(&array);
            CHECK(array.data == nullptr && array.capacity == 0);
            check_same(array, model);
            continue;
        }
        CHECK(got == expected);
        check_same(array, model);
        if (model.failed) {
            // Nothing touches the storage of a failed array, and an operation
            // that fails leaves it as it was.
            CHECK(array.data == data_before);
            CHECK(array.capacity == capacity_before);
        } else if (array.capacity != capacity_before) {
            // Growth is by at least an eighth, in whole blocks of 128 bytes.
            CHECK(array.capacity % 128 == 0);
            CHECK(array.capacity >= capacity_before + capacity_before / 8);
        }
    }
    refuse_allocations = false;
    tn_array_free(&array);
    return 0;
}
