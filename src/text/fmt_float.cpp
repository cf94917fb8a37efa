#include <tarnel_util/tn_fmt.h>

#include <cmath>

namespace {

// A double with an exponent of its own. Keeping the fraction in [0.5, 1)
// before every step means no step overflows or goes subnormal, so each
// product and quotient rounds exactly as unbounded double arithmetic would:
// the digits of huge and of subnormal values come out as for any other.
struct Wide {
    double fraction;
    int exponent;

    explicit Wide(double v) { fraction = std::frexp(v, &exponent); }
    void times(double f)
    {
        int more;
        fraction = std::frexp(fraction * f, &more);
        exponent += more;
    }
};

struct FloatKind {
    double factor;    // scales a down by one decade
    double tolerance; // how close below 1 counts as 1
};

constexpr FloatKind float32_kind{static_cast<double>(0.1f), 1e-7};
constexpr FloatKind float64_kind{0.1, 1e-14};

constexpr tn_int64 eight_digits_low = 10000000;
constexpr tn_int64 eight_digits_high = 100000000;

// The digit integer: magnitude * 10^7 / 10^e, the power built by repeated
// multiplication, truncated.
tn_int64 digit_integer(double magnitude, tn_int32 e)
{
    Wide s(1.0);
    for (tn_int32 i = e < 0 ? -e : e; i > 0; --i) s.times(e > 0 ? 10.0 : 0.1);
    Wide m(magnitude);
    double q = std::ldexp(m.fraction * 10000000.0 / s.fraction, m.exponent - s.exponent);
    return q < 9.2e18 ? static_cast<tn_int64>(q) : eight_digits_high;
}

tn_uint32 put(tn_uchar *b, const char *text)
{
    tn_uint32 n = 0;
    for (; text[n]; ++n) b[n] = static_cast<tn_uchar>(text[n]);
    return n;
}

tn_uint32 fmt_float(tn_uchar *b, double v, const FloatKind &kind)
{
    if (std::isnan(v)) return put(b, "NaN");
    if (std::isinf(v)) return put(b, v < 0 ? "-INF" : "INF");

    double magnitude = std::fabs(v);
    double a = magnitude;
    tn_int32 e = 0;
    if (a >= 10) {
        while (a >= 10) {
            a *= kind.factor;
            ++e;
        }
    } else if (a != 0) {
        while (a < 1 && 1 - a > kind.tolerance) {
            a *= 10;
            --e;
        }
    }
    tn_int64 n = digit_integer(magnitude, e);
    if (n == 0) return put(b, "0");

    // Rounding in the scaling can leave the integer a decade off at a power
    // of ten; taking it again one decade over gives the eight digits and the
    // exponent of the leading one.
    if (n < eight_digits_low || n >= eight_digits_high) {
        tn_int32 e2 = n < eight_digits_low ? e - 1 : e + 1;
        tn_int64 again = digit_integer(magnitude, e2);
        if (again >= eight_digits_low && again < eight_digits_high) {
            n = again;
            e = e2;
        } else {
            n = n < eight_digits_low ? eight_digits_low : eight_digits_high - 1;
        }
    }

    tn_uint32 count = 0;
    if (v < 0) b[count++] = '-';
    tn_uchar digits[8];
    tn_str_fmt_uint32(digits, static_cast<tn_uint32>(n));
    b[count++] = digits[0];
    b[count++] = '.';
    for (int i = 1; i < 8; ++i) b[count++] = digits[i];
    if (e != 0) {
        b[count++] = 'E';
        count += tn_str_fmt_int32(b + count, e);
    }
    return count;
}

// The scan's states: what has been read so far.
enum State { start, sign, integer, point, fraction, mark, exponent_sign, exponent, failed };

struct Scanner {
    State state = start;
    bool negative = false;
    bool negative_exponent = false;
    double mantissa = 0.0;
    tn_uint32 exponent_value = 0;
    double divisor = 10.0;

    static bool valid_end(State s) { return s == integer || s == fraction || s == exponent; }

    // One character of the alphabet; any other character ends the scan.
    State step(tn_uchar c)
    {
        unsigned d = static_cast<unsigned>(c) - '0';
        if (d < 10) {
            switch (state) {
            case start:
            case sign:
            case integer:
                mantissa = mantissa * 10.0 + d;
                return integer;
            case point:
            case fraction:
                mantissa += d / divisor;
                divisor *= 10.0;
                return fraction;
            case mark:
            case exponent_sign:
            case exponent:
                exponent_value = exponent_value * 10 + d;
                return exponent;
            default:
                return failed;
            }
        }
        switch (c) {
        case '+':
        case '-':
            if (state == start) {
                negative = c == '-';
                return sign;
            }
            if (state == mark) {
                negative_exponent = c == '-';
                return exponent_sign;
            }
            return failed;
        case '.':
            return state <= integer ? point : failed;
        default: // 'E' or 'e'
            return state == integer || state == point || state == fraction ? mark : failed;
        }
    }

    double value() const
    {
        if (mantissa == 0.0) return negative ? -0.0 : 0.0;
        // Once the power is 0 or infinite, further steps change nothing.
        double p = 1.0;
        double f = negative_exponent ? 0.1 : 10.0;
        for (tn_uint32 i = 0; i < exponent_value && p != 0.0 && !std::isinf(p); ++i) p *= f;
        return p * (negative ? -1.0 : 1.0) * mantissa;
    }
};

bool in_alphabet(tn_uchar c)
{
    return (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.' || c == 'E' || c == 'e';
}

template <class F>
tn_uint32 scan_float(const tn_uchar *s, F *value)
{
    *value = 0;
    Scanner scanner;
    tn_uint32 n = 0;
    for (; in_alphabet(s[n]); ++n) {
        scanner.state = scanner.step(s[n]);
        if (scanner.state == failed) return 0;
    }
    if (!Scanner::valid_end(scanner.state)) return 0;
    *value = static_cast<F>(scanner.value());
    return n;
}

} // namespace

tn_uint32 tn_str_fmt_float32(tn_uchar *b, float v) { return fmt_float(b, v, float32_kind); }
tn_uint32 tn_str_fmt_float64(tn_uchar *b, double v) { return fmt_float(b, v, float64_kind); }
tn_uint32 tn_str_scan_float32(const tn_uchar *s, float *v) { return scan_float(s, v); }
tn_uint32 tn_str_scan_float64(const tn_uchar *s, double *v) { return scan_float(s, v); }
