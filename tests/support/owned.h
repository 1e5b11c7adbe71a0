// A library object of the construct_ / destruct_ pattern, constructed on an Env of its own and destructed at
// the end of the scope. It derives from the object, so its address is the object's address.
#pragma once

#include "runtime/env.h"
#include "velquin/twin_lens_types.h"

namespace vq_tl_test {

template <typename T, TLResult (*Construct)(T*, vq_tl::Env*), TLResult (*Destruct)(T*)>
struct Owned : T {
    vq_tl::Env env{};
    Owned() { Construct(this, &env); }
    ~Owned() { Destruct(this); }
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;
};

}  // namespace vq_tl_test
