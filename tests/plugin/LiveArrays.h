#pragma once

namespace zel::test {

/// A measure of the arrays that are alive in this process: each new[] raises it, each delete[]
/// lowers it by the same amount. Only differences between two calls mean something.
long long liveArrays();

} // namespace zel::test
