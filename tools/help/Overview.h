#pragma once

namespace qel {

/// The footer of the whole command, by the rules of HelpNotes.h.
inline constexpr const char* kOverview =
    "A ring carries packets through a chain of up to five processes: node 0 writes, every\n"
    "node reads what the one before it has released, the last gives the space back. A block\n"
    "is memory that one process makes and others find by its name. Rings and semaphores\n"
    "stay until they are removed, a block until the last process that has it open ends.\n"
    "\n"
    "\"qev VERB --help\" tells the options of a verb, and \"man qev-VERB\" the same at leisure.\n"
    "\n"
    "Files:\n"
    "  /dev/shm/NAME.shm    the object of the ring NAME: control block and packets\n"
    "  /dev/shm/sem.NAME    the semaphore /NAME\n"
    "  /tmp/NAME_shm.lock   the lock file of the block NAME, with the record by which it is found\n"
    "\n"
    "Exit status: 0 when all went well, 1 when something failed, 2 for bad arguments\n"
    "(nothing is touched then), 128 + the signal's number when interrupted.\n"
    "\n"
    "Examples:\n"
    "  qev pipeline --input video.mp4 --output copy.mp4\n"
    "  qev block show settings";

}  // namespace qel
