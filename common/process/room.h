// What a program needs of the system before it begins. GLib and control libraries end the process, or answer
// wrongly, where they cannot have a descriptor or a thread: better nothing is begun than that.
#ifndef COMMON_PROCESS_ROOM_H
#define COMMON_PROCESS_ROOM_H

namespace common
{

// Enough descriptors (a lower soft limit is raised), address space, stack and threads for a program that uses
// the bus and starts others. Throws Failure, which names the limit (as the shell's ulimit does), when there
// is less. Any thread may call it; a process is started for it, and has ended.
void requireRoom();

} // namespace common

#endif
