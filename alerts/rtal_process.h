// The alert side of a process that ended: its counters leave the metric tree, and rules on
// counters no other process of its name still feeds are closed with an alert. Kept with the
// other makers of alerts, so the lock order (tree, then rules, then alerts) lives in one
// folder.
#pragma once

/// Takes a vanished process out of the metric tree, closing as alerts the rules on counters
/// that no other process of the same name still feeds. The whole "Process-><name>" node goes,
/// with the instances of other processes of that name: they must be registered again.
void RemoveProcessFromTree(const char* name, int pid, int unused);
