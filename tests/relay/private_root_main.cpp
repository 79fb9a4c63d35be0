// Runs the tests inside a private view of the box's fixed paths, as the
// subreaper of every daemon they start, so none is left behind unseen.
#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <cstdio>

#include "private_root.h"

int main(int argc, char** argv) {
    std::string error;
    if (!farlink_test::EnterPrivateRoot(&error)) {
        std::fprintf(stderr, "cannot enter a private root: %s\n", error.c_str());
        return 1;
    }
    if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
        std::perror("PR_SET_CHILD_SUBREAPER");
        return 1;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
