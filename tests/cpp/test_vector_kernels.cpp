#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <type_traits>
#include <vector>

#include "backend/cpu/vector_kernels.hpp"
#include "test_support.hpp"

using namespace quillmark::cpu;

namespace {

using u64 = std::uint64_t;

// Lengths around every vector width and unroll boundary (2, 4, 8, 16 lanes; two or four vectors).
const u64 kLengths[] = {0, 1, 2, 3, 5, 7, 8, 9, 15, 16, 17, 31, 32, 33, 63, 64, 65, 100, 130};

template <class R> std::vector<R> random_values(u64 n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> dist(-1, 1);
    std::vector<R> v(n);
    for (auto& e : v) e = static_cast<R>(dist(rng));
    return v;
}

template <class R> void check_gemv(const VectorKernelSet<R>& k) {
    const double eps = std::numeric_limits<R>::epsilon();
    for (u64 n : kLengths) {
        const u64 rows = 7, lda = n + 3; // padded rows: the kernel must stay within each row
        const auto a = random_values<R>(rows * lda, 1), x = random_values<R>(n, 2);
        std::vector<R> all(rows), single(rows);
        k.gemv_rows(rows, n, a.data(), lda, x.data(), all.data());
        for (u64 i = 0; i < rows; ++i) k.gemv_rows(1, n, a.data() + i * lda, lda, x.data(), single.data() + i);
        for (u64 i = 0; i < rows; ++i) {
            long double exact = 0, scale = 0;
            for (u64 j = 0; j < n; ++j) {
                exact += static_cast<long double>(a[i * lda + j]) * x[j];
                scale += std::fabs(static_cast<long double>(a[i * lda + j]) * x[j]);
            }
            EXPECT_NEAR(static_cast<double>(all[i]), static_cast<double>(exact), 2 * eps * (n + 1) * double(scale))
                << k.name << " n=" << n << " row " << i;
            // Row grouping must not change a row's result (threads split rows arbitrarily).
            EXPECT_EQ(all[i], single[i]) << k.name << " n=" << n << " row " << i;
        }
    }
}

template <class R> void check_squares(const VectorKernelSet<R>& k) {
    for (u64 n : kLengths) {
        auto x = random_values<R>(n, 3);
        if (n > 0) x[n / 2] = static_cast<R>(-4); // the largest magnitude, negative, anywhere
        double squares = -1, max = -1;
        k.squares_and_max(x.data(), n, &squares, &max);
        long double exact = 0;
        for (R v : x) exact += static_cast<long double>(v) * v;
        EXPECT_NEAR(squares, static_cast<double>(exact), 1e-14 * (n + 1) * 16) << k.name << " n=" << n;
        EXPECT_EQ(max, n > 0 ? 4.0 : 0.0) << k.name << " n=" << n;
        if (n > 0) {
            x[n - 1] = std::numeric_limits<R>::quiet_NaN();
            k.squares_and_max(x.data(), n, &squares, &max);
            EXPECT_TRUE(std::isnan(squares)) << k.name << " n=" << n;
        }
    }
}

// Every variant rotates with separately rounded products, so all agree bit for bit.
template <class R> void check_rotate(const VectorKernelSet<R>& k, const VectorKernelSet<R>& reference) {
    const R c = static_cast<R>(0.8), s = static_cast<R>(-0.6);
    for (u64 n : kLengths) {
        auto x = random_values<R>(n, 4), y = random_values<R>(n, 5);
        auto rx = x, ry = y;
        k.rotate(x.data(), y.data(), n, c, s);
        reference.rotate(rx.data(), ry.data(), n, c, s);
        EXPECT_EQ(x, rx) << k.name << " n=" << n;
        EXPECT_EQ(y, ry) << k.name << " n=" << n;
        if (n > 0) {
            EXPECT_EQ(rx[n - 1], R(0.8) * random_values<R>(n, 4)[n - 1] - R(-0.6) * random_values<R>(n, 5)[n - 1]);
        }
    }
}

// The in-place kernel on interleaved rows must give split_dot_rows' bits (results of the tiled
// path are compared bit for bit with the converting one); rows are padded so that it must honour lda.
void check_interleaved_dot(const VectorKernelSet<double>& k, const VectorKernelSet<double>& reference) {
    if (!k.interleaved_dot_rows) return;
    ASSERT_TRUE(k.pack_dot_x);
    for (u64 n : kLengths) {
        const u64 rows = 5, lda = n + 3;
        auto a = random_values<double>(2 * rows * lda, 6), x = random_values<double>(2 * n, 7);
        if (n > 2) { // cancellation to zero and a non-finite term must land in the same lane too
            a[2 * lda + 1] = -0.0;
            a[2 * (3 * lda + n - 1)] = std::numeric_limits<double>::infinity();
        }
        std::vector<double> ar(rows * lda), ai(rows * lda), xr(n), xi(n), yr(rows), yi(rows);
        std::vector<double> packed(2 * n), y(2 * rows), want(2 * rows);
        for (u64 i = 0; i < a.size(); ++i) (i % 2 ? ai : ar)[i / 2] = a[i];
        for (u64 j = 0; j < x.size(); ++j) (j % 2 ? xi : xr)[j / 2] = x[j];
        reference.split_dot_rows(rows, n, ar.data(), ai.data(), lda, xr.data(), xi.data(), yr.data(), yi.data());
        k.pack_dot_x(n, x.data(), packed.data());
        k.interleaved_dot_rows(rows, n, a.data(), lda, packed.data(), y.data());
        for (u64 r = 0; r < rows; ++r) want[2 * r] = yr[r], want[2 * r + 1] = yi[r];
        EXPECT_TRUE(quillmark::testing::same_bits(y, want)) << k.name << " n=" << n;
    }
}

template <class R> void check_all() {
    const auto sets = available_vector_kernels<R>();
    ASSERT_FALSE(sets.empty());
    EXPECT_EQ(sets.front().name, "portable");
    for (const auto& k : sets) {
        check_gemv(k);
        check_squares(k);
        check_rotate(k, sets.front());
        if constexpr (std::is_same_v<R, double>) check_interleaved_dot(k, sets.front());
    }
}

} // namespace

TEST(VectorKernels, EveryVariantOnDouble) { check_all<double>(); }
TEST(VectorKernels, EveryVariantOnFloat) { check_all<float>(); }
