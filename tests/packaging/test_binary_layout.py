"""The binary interface of libqev_SharedMemory.so, read from the library as it was built.

The segment is shared with programs that were built elsewhere, and so are the classes: every
offset, width and slot below is a promise to them. The figures are written out here and not
derived from the source."""

import sys
import unittest

from elf_image import ElfImage, demangle
from skipping import skip

image = None

# The operations of each interface in the order of their slots, after the two destructor slots.
SYS = (
    "DoShmOpen DoShmUnlink DoFtruncate DoMmap DoMunmap DoSemOpen DoSemOpenc DoSemClose"
    " DoSemUnlink DoSemPost DoSemTimedwait DoClose DoSemWait DoSemTryWait DoSemGetValue"
).split()
SHARED_MEM_LIB = ["DoGetSharedPacketBuffer"]
SHARED_BUFFER = (
    "DoReleaseData DoWriteHeaderPayload DoWriteHeaderMultiData DoWriteHeaderSkipPayload"
    " DoReadData DoReadHeader DoReadPayload DoPrint DoGetCurrentCapacity"
).split()
SHARED_PACKET_BUFFER = (
    "DoReleasePacket DoReleasePackets DoWritePacket DoWriteCriticalPacket DoWriteMultiDataPacket"
    " DoReadNextPacket DoPrint DoGetCurrentCapacity DoReadData"
).split()
BLOCK_READER = "DoLock DoTryLock DoUnlock DoGetData DoSize".split()
BLOCK_WRITER = (
    "DoLockForWrite DoTryLockForWrite DoUnlockForWrite DoLockForRead DoTryLockForRead"
    " DoUnlockForRead DoGetDataForRead DoGetDataForWrite DoSize"
).split()

INTERFACES = {
    "SysIF": ("Sys", SYS),
    "SharedMemLibIF": ("SharedMemLib", SHARED_MEM_LIB),
    "SharedBufferIF": ("SharedBuffer", SHARED_BUFFER),
    "SharedPacketBufferIF": ("SharedPacketBuffer", SHARED_PACKET_BUFFER),
    "SharedMemoryBlockReaderIF": ("SharedMemoryBlockReader", BLOCK_READER),
    "SharedMemoryBlockWriterIF": ("SharedMemoryBlockWriter", BLOCK_WRITER),
}

# Size of each record, then its members in order of declaration: name, offset, width.
SHARED_FORMATS = {
    "ControlBlock": (152, [
        ("avail", 0, 40),
        ("wIdx", 40, 40),
        ("rIdx", 80, 40),
        ("numPackets", 120, 4),
        ("initialised", 124, 1),
        ("reserved1", 125, 3),
        ("maxPackets", 128, 4),
        ("reserved2", 132, 4),
        ("halfSize", 136, 8),
        ("quarterSize", 144, 8),
    ]),
    "PacketHeader": (26, [
        ("length", 0, 8),
        ("ignoreData", 8, 1),
        ("pts", 9, 8),
        ("key", 17, 1),
        ("timestampSec", 18, 4),
        ("timestampUsec", 22, 4),
    ]),
    "EventBoundary": (17, [
        ("isSet", 0, 1),
        ("id", 1, 4),
        ("startTick", 5, 4),
        ("stopTick", 9, 4),
        ("timestamp", 13, 4),
    ]),
    "SharedMemoryMetadata": (32, [
        ("pid", 0, 4),
        ("fd", 4, 4),
        ("dev", 8, 8),
        ("ino", 16, 8),
        ("uid", 24, 8),
    ]),
}

CLIENT_RECORDS = {
    "SharedBufferIF::BufferInfo": (48, [
        ("shmName", 0, 32),
        ("shmSize", 32, 8),
        ("nodeIdx", 40, 1),
        ("sink", 41, 1),
        ("maxFrames", 44, 4),
    ]),
    "SharedPacketBufferIF::CtlData": (88, [
        ("controlOnly", 0, 1),
        ("dataOffset", 8, 8),
        ("dataSize", 16, 8),
        ("ignoreDataFrame", 24, 1),
        ("ptsDuration", 28, 4),
        ("startTick", 32, 4),
        ("stopTick", 36, 4),
        ("frameIdx", 40, 1),
        ("eventStartBoundary", 41, 17),
        ("fileStart", 58, 1),
        ("eventStopBoundary", 59, 17),
        ("fileStop", 76, 1),
        ("stopPipelineId", 77, 1),
        ("timeStamp", 80, 4),
        ("stopWritingToStorageBoundary", 84, 1),
        ("startWritingToStorageBoundary", 85, 1),
    ]),
    "Packet": (48, [("header", 0, 26), ("data", 32, 16)]),
    "WriteResult": (16, [("index", 0, 8), ("status", 8, 4)]),
    "ReadResult": (24, [("data", 0, 16), ("status", 16, 4)]),
    "PayloadResult": (32, [("data", 0, 16), ("index", 16, 8), ("status", 24, 4)]),
    "Capacity": (40, [("shmName", 0, 32), ("maxPackets", 32, 4), ("numPackets", 36, 4)]),
    "SharedPacketBufferResult": (16, [("buffer", 0, 8), ("status", 8, 4)]),
    "ReadNextPacketResult": (64, [("packet", 0, 48), ("index", 48, 8), ("status", 56, 4)]),
}

# The pointer to the virtual table takes the first 8 bytes of a class that has one.
CLASSES = {
    "SysIF": (16, [("impl_", 8, 8)]),
    "SharedMemLibIF": (16, [("impl_", 8, 8)]),
    "SharedBufferIF": (16, [("impl_", 8, 8)]),
    "SharedPacketBufferIF": (8, []),
    "Sys": (16, []),
    "SharedMemLib": (32, [("sys_", 16, 16)]),
    "SharedBuffer": (160, [
        ("dataArea_", 16, 40),  # a stored deleter, then the pointer
        ("control_", 56, 8),
        ("sys_", 64, 16),
        ("pendingHeaderLength_", 80, 8),
        ("nodeIdx_", 88, 1),
        ("sink_", 89, 1),
        ("shmName_", 96, 32),
        ("errorString_", 128, 32),
    ]),
    "SharedPacketBuffer": (16, [("ring_", 8, 8)]),
    "SharedMemoryBlockReaderIF": (8, []),
    "SharedMemoryBlockWriterIF": (8, []),
    "SharedMemoryBlockReader": (16, [("impl_", 8, 8)]),
    "SharedMemoryBlockWriter": (16, [("impl_", 8, 8)]),
    "SharedMemoryBlock": (216, [
        ("mapping_", 0, 40),  # a stored deleter, then the pointer
        ("accessFlags_", 40, 4),
        ("header_", 48, 8),
        ("data_", 56, 8),
        ("sys_", 64, 16),
        ("size_", 80, 8),
        ("lockFile_", 88, 8),
        ("writerThread_", 96, 8),
        ("readerMutex_", 104, 40),
        ("readerThreads_", 144, 56),
        ("fd_", 200, 16),
    ]),
    "SharedMemoryBlockReader::Impl": (216, []),
    "SharedMemoryBlockWriter::Impl": (216, []),
    "LockFileBase": (184, [
        ("creator_", 0, 4),
        ("file_", 8, 64),
        ("sharedHolders_", 72, 4),
        ("exclusive_", 76, 1),
        ("process_", 77, 1),
        ("access_", 80, 56),
        ("counterMutex_", 136, 40),
        ("owner_", 176, 8),
    ]),
    "LockFileIOBase<qel::SharedMemoryMetadata>": (184, []),
    "NamedSemaphore": (8, [("impl_", 0, 8)]),
    "NamedSemaphore::Impl": (64, [
        ("name_", 0, 32),
        ("balance_", 32, 8),
        ("semaphore_", 40, 8),
        ("sys_", 48, 16),
    ]),
    "SemaphoreMultiLockHelper": (16, [("semaphore", 0, 8), ("count", 8, 8)]),
}

# What the library holds by value of classes that another library defines.
COMPANIONS = {
    "MappedFile": (64, [
        ("path_", 0, 32),
        ("descriptor_", 32, 16),
        ("data_", 48, 8),
        ("length_", 56, 8),
    ]),
    "FileDescriptor": (16, [("descriptor_", 0, 4), ("closer_", 8, 8)]),
    "UniqueFunction<void(int)>": (8, [("target_", 0, 8)]),
}

# A class that is not named here has no base. All bases stand at the start.
BASES = {
    "Sys": "SysIF",
    "SharedMemLib": "SharedMemLibIF",
    "SharedBuffer": "SharedBufferIF",
    "SharedPacketBuffer": "SharedPacketBufferIF",
    "SharedMemoryBlockReader": "SharedMemoryBlockReaderIF",
    "SharedMemoryBlockWriter": "SharedMemoryBlockWriterIF",
    "SharedMemoryBlockReader::Impl": "SharedMemoryBlock",
    "SharedMemoryBlockWriter::Impl": "SharedMemoryBlock",
    "LockFileIOBase<qel::SharedMemoryMetadata>": "LockFileBase",
}

# The classes whose private object is there without state, for state that may come.
EMPTY_PRIVATE_OBJECTS = ("SysIF::Impl", "SharedMemLibIF::Impl", "SharedBufferIF::Impl")


def operation_of(signature):
    return signature.split("(")[0].split("::")[-1]


class SlotOrder(unittest.TestCase):
    def test_an_implementation_fills_each_slot_with_the_operation_of_that_slot(self):
        for interface, (implementation, operations) in INTERFACES.items():
            with self.subTest(interface):
                slots = image.vtable(implementation)[2:]
                names = [operation_of(demangle(slot)[0]) for slot in slots]
                self.assertEqual(names, operations)

    def test_the_destructors_come_first(self):
        for implementation, _ in INTERFACES.values():
            with self.subTest(implementation):
                complete, deleting = image.vtable(implementation)[:2]
                # The base's destructor may stand for a complete one that does the same.
                self.assertRegex(" ".join(complete), r"D[12]Ev\b")
                self.assertRegex(" ".join(deleting), r"D0Ev\b")

    def test_all_operations_of_an_interface_are_pure(self):
        for interface, (_, operations) in INTERFACES.items():
            with self.subTest(interface):
                slots = image.vtable(interface)[2:]  # g++ leaves the destructors' slots empty
                self.assertEqual(slots, [["__cxa_pure_virtual"]] * len(operations))


class Layout(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.types = image.types()

    def check(self, expected):
        for name, (size, members) in expected.items():
            with self.subTest(name):
                found = self.types[name]
                # Where the binary does not describe a member's type, the next offset shows its
                # width.
                actual = [
                    (member, offset, want[2] if width is None else width)
                    for (member, offset, width), want in zip(found.members(), members)
                ]
                self.assertEqual(len(found.members()), len(members), found.members())
                self.assertEqual(actual, members)
                self.assertEqual(found.size, size)

    def test_the_formats_that_processes_share_are_kept_to_the_byte(self):
        self.check(SHARED_FORMATS)

    def test_the_records_that_clients_exchange_keep_their_field_order(self):
        self.check(CLIENT_RECORDS)

    def test_the_classes_keep_their_members_in_order(self):
        self.check(CLASSES)

    def test_the_companions_keep_their_members_in_order(self):
        self.check(COMPANIONS)

    def test_each_class_has_its_one_base_or_none(self):
        for name in CLASSES | COMPANIONS:
            with self.subTest(name):
                expected = [(BASES[name], 0)] if name in BASES else []
                self.assertEqual(self.types[name].bases(), expected)

    def test_the_private_objects_of_the_interfaces_are_empty(self):
        for name in EMPTY_PRIVATE_OBJECTS:
            with self.subTest(name):
                self.assertEqual(self.types[name].size, 1)
                self.assertEqual(self.types[name].members(), [])

    def test_the_status_codes_keep_their_numbers(self):
        codes = {
            "SUCCESS": 0,
            "INVALID_PARAMETER": 1,
            "SHARED_MEMORY_FAILURE": 2,
            "NOT_ENOUGH_SPACE": 3,
            "DATA_NOT_AVAILABLE": 4,
            "WILL_WRAP": 5,
        }
        self.assertEqual(self.types["SMStatusCode"].enumerators(), codes)
        self.assertEqual(self.types["SMStatusCode"].size, 4)


if __name__ == "__main__":
    image = ElfImage(sys.argv[1])
    if not image.has_symbols() or not image.has_debug_info():
        skip("the library was built without debug information")
    unittest.main(argv=[sys.argv[0]] + sys.argv[2:])
