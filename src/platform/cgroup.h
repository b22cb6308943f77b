// Moving the process between the active and the idle control group.
//
// The groups are cgroup v2 directories given by --cgroup-active and
// --cgroup-idle; moving means writing the process id into the group's
// "cgroup.procs". Without the switches both calls do nothing, so the process
// stays in the group it was started in.
#pragma once

// 0 on success or when no group is configured; non-zero when the move failed
// (reported once per group on standard error as a WARNING).
int media_item_to_cgroup_active();
int media_item_to_cgroup_idle();
