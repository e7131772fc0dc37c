// Status codes in check order, for every family the same way. Each family lists its bad
// arguments in the order its checks run, each with the code it must give. Case i breaks
// argument i and every argument after it, so that the check of argument i must win over
// all later ones; the arguments are broken from the last to the i-th, so that where two
// faults touch the same matrix the earlier check's fault is the one left in place. An
// entry with code 0 is a short cut (an empty input) that must come before every later
// check. The valid arguments must succeed (a status >= 0). A failed call, and a short
// cut, writes nothing the caller sees: `untouched` reads it before and after the call.
//
//   struct args { dense2D<double> coords = ...; ... };           // valid arguments
//   expect_checks_in_order<args>({{"coords rows", [](args& a) { a.coords.resize(2, 4); }, -1}, ...},
//                                [](args& a) { return f(a.coords, ...); },
//                                [](const args& a) { return bytes_of(a.coords, a.out); });
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include "zel/matrix.h"

namespace tessel3d_test {

template <class Args>
struct bad_argument {
  std::string name;
  std::function<void(Args&)> apply;
  int status;
};

// Shapes and entries of matrices, byte for byte: equal means unchanged, NaN included.
template <class... T>
std::string bytes_of(const zel::dense2D<T>&... m) {
  std::string out;
  const auto append = [&out](const auto& matrix) {
    using entry = typename std::decay_t<decltype(matrix)>::value_type;
    const std::size_t shape[2] = {matrix.rows(), matrix.cols()};
    out.append(reinterpret_cast<const char*>(shape), sizeof shape);
    for (std::size_t j = 0; j < matrix.cols() && matrix.rows(); ++j)
      out.append(reinterpret_cast<const char*>(&matrix(0, j)), matrix.rows() * sizeof(entry));
  };
  (append(m), ...);
  return out;
}

// call(Args&) returns the status; untouched(const Args&) returns bytes_of(...) of what a
// failed call must leave alone.
template <class Args, class Call, class Untouched>
void expect_checks_in_order(const std::vector<bad_argument<Args>>& chain, const Call& call,
                            const Untouched& untouched) {
  {
    Args valid;
    EXPECT_GE(call(valid), 0) << "valid arguments";
  }
  for (std::size_t i = 0; i < chain.size(); ++i) {
    Args a;
    for (std::size_t k = chain.size(); k-- > i;) chain[k].apply(a);
    const std::string before = untouched(a);
    EXPECT_EQ(call(a), chain[i].status) << "bad " << chain[i].name << " (and every later argument)";
    EXPECT_TRUE(untouched(a) == before) << "bad " << chain[i].name << ": an output was written";
  }
}

}  // namespace tessel3d_test
