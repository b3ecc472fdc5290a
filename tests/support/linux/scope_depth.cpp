#include "support/scope_depth.h"

namespace tavistro::test {
namespace {

thread_local int depth_of_thread = 0;

}  // namespace

int scope_depth() noexcept {
    return depth_of_thread;
}
void set_scope_depth(int depth) noexcept {
    depth_of_thread = depth;
}

}  // namespace tavistro::test
