/* A visitor for std::visit, made of one lambda for each type of the variant. */
#pragma once

namespace client {

template <typename... Lambdas>
struct Overloaded : Lambdas... {
    using Lambdas::operator()...;
};
/* C++20 deduces this by itself, clang 14 does not. */
template <typename... Lambdas>
Overloaded(Lambdas...) -> Overloaded<Lambdas...>;

} // namespace client
