#include <gtest/gtest.h>
#include <quorvel/VertexNormalsControl.h>

namespace Quorvel::Testing {

TEST(VertexNormalsControlUse, IsOnWithoutAReference) {
    const VertexNormalsControl control;
    EXPECT_TRUE(control.enabled);
    EXPECT_EQ(control.reference.Get(), nullptr);
}

}  // namespace Quorvel::Testing
