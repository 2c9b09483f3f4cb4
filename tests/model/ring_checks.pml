/* What must hold of the ring, and what is kept beside its protocol to tell. */

/* The properties. The checker's message names the one that is broken; all of these stay 0. */
hidden byte bytes_conserved, counter_not_clamped, counter_in_range, nothing_overwritten,
    record_intact, order_kept, payload_there, header_room_kept, packet_limit_kept,
    packets_counted, reserve_kept, filler_has_room;
#define HOLDS(property, condition) assert((condition) || property)

/* Beside the protocol, by start of the record. */
#define NOWHERE 0
#define WAITING(node) (node)        /* for node 1 and up */
#define HELD(node) (NODES + (node)) /* HELD(0): being written */
byte size[SIZE];
byte place[SIZE];
bool isFiller[SIZE];
byte mark[SIZE]; /* 0, 1, ... MARKS - 1, 0, ... in the order of writing */
/* Beside the protocol. */
byte taken[NODES];  /* lowered from a node's avail and not yet added to the next one's */
bool notYetCounted; /* a record is being written that numPackets does not hold yet */
bool stillCounted;  /* a record was released that numPackets still holds */

hidden byte k, sum; /* used within single steps */

/* After each change of a counter: every byte is where it should be. */
inline CheckBytes(node) {
    HOLDS(counter_in_range, avail[node] <= SIZE);
    sum = 0;
    for (k : 0 .. NODES - 1) {
        sum = sum + avail[k] + taken[k]
    }
    HOLDS(bytes_conserved, sum == SIZE);
#if MUTANT != HANDED_ON_IN_TWO_PARTS /* which breaks another property too, later */
    sum = 0;
    for (k : 0 .. SIZE - 1) {
        sum = sum + (place[k] == WAITING(node) -> size[k] : 0)
    }
    HOLDS(bytes_conserved, node == 0 || avail[node] == sum)
#endif
}

/* After each change of numPackets, and of what it counts. */
inline CheckPackets() {
    sum = 0;
    for (k : 0 .. SIZE - 1) {
        sum = sum + (place[k] == NOWHERE -> 0 : 1)
    }
    HOLDS(packets_counted, numPackets + notYetCounted == sum + stillCounted);
    HOLDS(packet_limit_kept, numPackets <= MAX_PACKETS)
}

inline ForgetRecord(start) {
    for (k : 0 .. size[start] - 1) {
        cell[AT(start + k)] = FREE
    }
    size[start] = 0;
    place[start] = NOWHERE;
    isFiller[start] = false;
    mark[start] = 0
}
