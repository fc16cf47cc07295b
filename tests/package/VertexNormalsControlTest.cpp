#include "quorvel/VertexNormalsControl.h"

#include <gtest/gtest.h>

#include <cstring>
#include <new>

namespace Quorvel::Testing {

TEST(VertexNormalsControl, IsOnAndRefersToNothingOverAnyMemoryContents) {
    alignas(VertexNormalsControl) unsigned char memory[sizeof(VertexNormalsControl)];
    std::memset(memory, 0, sizeof memory);
    auto* control = new (memory) VertexNormalsControl;
    EXPECT_TRUE(control->enabled);
    control->~VertexNormalsControl();

    std::memset(memory, 0xFF, sizeof memory);
    control = new (memory) VertexNormalsControl;
    EXPECT_EQ(control->reference.Get(), nullptr);
    control->~VertexNormalsControl();
}

}  // namespace Quorvel::Testing
