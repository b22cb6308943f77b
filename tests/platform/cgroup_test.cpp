#include <gtest/gtest.h>

#include <unistd.h>

#include "platform/args.h"
#include "platform/cgroup.h"
#include "platform/t4mi_globals.h"
#include "support/test_env.h"

namespace {

TEST(ControlGroups, WithoutGroupsNothingHappens)
{
    t4mi_reset_standard_switches();
    EXPECT_EQ(media_item_to_cgroup_active(), 0);
    EXPECT_EQ(media_item_to_cgroup_idle(), 0);
}

TEST(ControlGroups, MovingWritesThePidIntoTheGroup)
{
    t4test::temp_dir dir;
    t4test::write_file(dir / "active/cgroup.procs", "");
    t4test::write_file(dir / "idle/cgroup.procs", "");
    t4mi_cgroup_active = dir / "active";
    t4mi_cgroup_idle = dir / "idle";
    EXPECT_EQ(media_item_to_cgroup_active(), 0);
    EXPECT_EQ(t4test::read_file(dir / "active/cgroup.procs"), std::to_string(getpid()) + "\n");
    EXPECT_EQ(media_item_to_cgroup_idle(), 0);
    EXPECT_EQ(t4test::read_file(dir / "idle/cgroup.procs"), std::to_string(getpid()) + "\n");
    t4mi_reset_standard_switches();
}

TEST(ControlGroups, AMissingGroupWarnsOnce)
{
    t4mi_cgroup_idle = "/nonexistent/group";
    testing::internal::CaptureStderr();
    EXPECT_NE(media_item_to_cgroup_idle(), 0);
    EXPECT_NE(media_item_to_cgroup_idle(), 0);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err.rfind("WARNING: cannot join control group /nonexistent/group: "), 0u) << err;
    EXPECT_EQ(err.find('\n'), err.size() - 1);
    t4mi_reset_standard_switches();
}

} // namespace
