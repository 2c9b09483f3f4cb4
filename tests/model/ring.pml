/*
 * The ring and its chain of nodes, step by step, to be searched in every interleaving.
 *
 * Every atomic load, add, subtract and store of the library that another node can see is a step of
 * its own, in the library's order; every cell of a record is written and read in a step of its own.
 * The writer chooses the size of each packet and whether it is critical, and never ends: a search
 * of all states covers any number of packets and of laps.
 *
 * A refused attempt changes nothing and is made again. It stands here as waiting for what it lacks.
 * Nothing is lost by that: while the writer waits, avail[0] only rises and numPackets only falls;
 * while a reader waits, its avail only rises.
 *
 * What is not in the segment (which record is where on its way, whose bytes are whose) is kept
 * beside the protocol and changes in the same step as the counter. No step of the protocol depends
 * on it.
 */

#ifndef NODES
#define NODES 3
#endif
#ifndef SIZE
#define SIZE 8 /* of the data area, in cells */
#endif
#ifndef HEADER
#define HEADER 1 /* cells of a header */
#endif
#ifndef RESERVE
#define RESERVE (5 * HEADER) /* free cells that packets which are not critical leave */
#endif
#ifndef LARGEST
#define LARGEST 2 /* cells of the largest payload */
#endif
#ifndef MAX_PACKETS
#define MAX_PACKETS 0 /* the packet limit + 1, 0 for none */
#endif
#ifndef HOLD
#define HOLD 1 /* records that a reader has at once */
#endif
#ifndef MARKS
#define MARKS 1
#endif
#ifndef MUTANT
#define MUTANT 0
#endif

/* Seeded faults. */
#define HAND_ON_BEFORE_COPY 1
#define RELEASE_BEFORE_READ 2
#define SUBTRACT_NOT_ATOMIC 3
#define HEADER_ROOM_DROPPED 4
#define ADD_NOT_ATOMIC 5
#define SPACE_NOT_CHECKED 6
#define RESERVE_IGNORED 7
#define FILLER_NOT_COUNTED 8
#define COUNTED_AFTER_HAND_ON 9
#define HANDED_ON_IN_TWO_PARTS 10
#define HEADER_READ_UNASKED 11
#define BARE_HEADER_OVERLOOKED 12
#define COUNT_OUT_NOT_ATOMIC 13

#define SINK (NODES - 1)
#define NEXT(node) (((node) + 1) % NODES)
#define AT(index) ((index) % SIZE)
#define ALLOWS(count) (MAX_PACKETS == 0 || MAX_PACKETS >= numPackets + (count))

/* The control block. Each index is stored and loaded by one node: a local of that node. */
byte avail[NODES];
byte numPackets;

/* The data area: FREE, or 1 + the start of the record that was written there. */
#define FREE 0
byte cell[SIZE];

#include "ring_checks.pml"

/* DecreaseAvailableSize for the record at `start`. */
inline Take(node, start, amount) {
    d_step { /* load */
        HOLDS(counter_not_clamped, avail[node] >= amount);
#if MUTANT == SUBTRACT_NOT_ATOMIC
        loaded = avail[node]
#endif
    }
    d_step { /* fetch_sub */
#if MUTANT == SUBTRACT_NOT_ATOMIC
        avail[node] = loaded - amount;
        loaded = 0;
#else
        avail[node] = avail[node] - amount;
#endif
        taken[node] = taken[node] + amount;
        place[start] = HELD(node);
        CheckBytes(node)
    }
}

/* IncreaseAvailableSize of the node behind `node` for the record at `start`. */
inline HandOver(node, start, amount) {
    d_step { /* load */
        HOLDS(counter_not_clamped, SIZE - avail[NEXT(node)] >= amount);
#if MUTANT == ADD_NOT_ATOMIC
        loaded = avail[NEXT(node)]
#endif
    }
    d_step { /* fetch_add */
#if MUTANT == ADD_NOT_ATOMIC
        avail[NEXT(node)] = loaded + amount;
        loaded = 0;
#else
        avail[NEXT(node)] = avail[NEXT(node)] + amount;
#endif
        taken[node] = taken[node] - amount;
        if
        :: node == SINK ->
            ForgetRecord(start);
            stillCounted = MAX_PACKETS > 0
        :: else ->
            place[start] = WAITING(NEXT(node))
        fi;
        CheckBytes(NEXT(node))
    }
}

/* WriteData, cell by cell. What a filler skips is not written, but it is not free either. */
inline Copy(written, whole) {
    do
    :: d_step {
        i < written ->
        HOLDS(nothing_overwritten, cell[AT(wIdx + i)] == FREE);
        cell[AT(wIdx + i)] = 1 + wIdx;
        i++
    }
    :: d_step {
        i == written ->
        for (i : written .. whole - 1) {
            HOLDS(nothing_overwritten, cell[AT(wIdx + i)] == FREE);
            cell[AT(wIdx + i)] = 1 + wIdx
        }
        i = 0
    } -> break
    od
}

/* IncrementPackets. */
inline CountIn(counts) {
    if
    :: d_step {
        MAX_PACKETS > 0 ->
        numPackets = numPackets + (counts -> 1 : 0); /* fetch_add */
        notYetCounted = false;
        CheckPackets()
    }
    :: MAX_PACKETS == 0
    fi
}

inline WriteRecord(copied, extent, filler, mayUseReserve) {
    d_step {
        HOLDS(nothing_overwritten, place[wIdx] == NOWHERE);
        size[wIdx] = extent;
        place[wIdx] = HELD(0);
        isFiller[wIdx] = filler;
        mark[wIdx] = marks;
        notYetCounted = MAX_PACKETS > 0
    }
#if MUTANT != HAND_ON_BEFORE_COPY
    Copy(copied, extent);
#endif
#if MUTANT == FILLER_NOT_COUNTED
    CountIn(!filler);
#elif MUTANT != COUNTED_AFTER_HAND_ON
    CountIn(true);
#endif
    Take(0, wIdx, extent);
    HOLDS(reserve_kept, mayUseReserve || avail[0] >= RESERVE);
#if MUTANT == HANDED_ON_IN_TWO_PARTS
    HandOver(0, wIdx, HEADER);
    HandOver(0, wIdx, (extent - HEADER));
#else
    HandOver(0, wIdx, extent);
#endif
#if MUTANT == COUNTED_AFTER_HAND_ON
    CountIn(true);
#endif
#if MUTANT == HAND_ON_BEFORE_COPY
    Copy(copied, extent);
#endif
    wIdx = AT(wIdx + extent); /* store */
    marks = (marks + 1) % MARKS
}

#if MUTANT == RESERVE_IGNORED
#define NEEDED length
#elif MUTANT == SPACE_NOT_CHECKED
#define NEEDED 0
#else
#define NEEDED length + (critical -> 0 : RESERVE)
#endif
#if MUTANT == HEADER_ROOM_DROPPED
#define FITS (wIdx + length <= SIZE)
#else
#define FITS (wIdx + length == SIZE || wIdx + length + HEADER <= SIZE)
#endif
#if MUTANT == HEADER_READ_UNASKED
#define ASKED 0
#elif MUTANT == BARE_HEADER_OVERLOOKED
#define ASKED (HEADER + 1)
#else
#define ASKED HEADER
#endif

/* A packet that the ring can take when it is empty. */
inline ChoosePacket() {
    atomic {
        length = HEADER;
        do
        :: length < HEADER + LARGEST -> length++
        :: break
        od;
        if
        :: length + RESERVE <= SIZE -> critical = false
        :: length + HEADER <= SIZE || length == SIZE -> critical = true
        fi
    }
}

active proctype Writer() {
    byte wIdx, marks, length, i;
    bool critical, fits, fillerToo;
#if MUTANT == SUBTRACT_NOT_ATOMIC || MUTANT == ADD_NOT_ATOMIC
    byte loaded;
#endif
    do
    :: ChoosePacket();
        do
        :: avail[0] >= NEEDED; /* load */
            d_step {
                ALLOWS(1); /* load */
                fits = FITS;
                fillerToo = !fits && ALLOWS(2)
            }
            if
            :: fits ->
                fits = false;
                WriteRecord(length, length, false, critical);
                break
            :: !fits && !fillerToo ->
                ALLOWS(2)
            :: !fits && fillerToo ->
                fillerToo = false;
                HOLDS(header_room_kept, wIdx > 0 && wIdx + HEADER <= SIZE);
                HOLDS(filler_has_room, avail[0] >= SIZE - wIdx); /* load */
                WriteRecord(HEADER, (SIZE - wIdx), true, true)
            fi
        od
    od
}

proctype Reader(byte node) {
    byte rIdx, marks;        /* where the next record stands, and its mark */
    byte held, view, length; /* records taken, where the first of them stands, and its length */
    byte i;
    bool isPacket;
#if MUTANT == SUBTRACT_NOT_ATOMIC || MUTANT == ADD_NOT_ATOMIC || MUTANT == COUNT_OUT_NOT_ATOMIC
    byte loaded;
#endif
    do
    :: held < HOLD && avail[node] >= ASKED -> /* load */
        do
        :: d_step {
            i < HEADER ->
            HOLDS(header_room_kept, rIdx + HEADER <= SIZE);
            HOLDS(record_intact, cell[rIdx + i] != FREE);
            HOLDS(order_kept, cell[rIdx + i] == 1 + rIdx);
            i++
        }
        :: d_step {
            i == HEADER ->
            i = 0;
            HOLDS(order_kept, place[rIdx] == WAITING(node) && mark[rIdx] == marks);
            marks = (marks + 1) % MARKS
        } -> break
        od;
        HOLDS(payload_there, avail[node] >= size[rIdx]); /* load */
        Take(node, rIdx, size[rIdx]);
        d_step {
            rIdx = AT(rIdx + size[rIdx]); /* store */
            held++
        }
    :: d_step {
        held > 0 ->
        length = size[view];
        isPacket = !isFiller[view];
        i = (isPacket -> HEADER : length)
    }
#if MUTANT == RELEASE_BEFORE_READ
        HandOver(node, view, length);
#endif
        do
        :: d_step {
            i < length ->
            HOLDS(record_intact, cell[AT(view + i)] == 1 + view);
            i++
        }
        :: i == length -> i = 0; break
        od;
#if MUTANT != RELEASE_BEFORE_READ
        HandOver(node, view, length);
#endif
        if
        :: node == SINK && MAX_PACKETS > 0 ->
            d_step { /* load */
                HOLDS(counter_not_clamped, numPackets >= 1);
#if MUTANT == COUNT_OUT_NOT_ATOMIC
                loaded = numPackets
#endif
            }
            d_step { /* fetch_sub */
#if MUTANT == COUNT_OUT_NOT_ATOMIC
                numPackets = loaded - 1;
                loaded = 0;
#else
                numPackets--;
#endif
                stillCounted = false;
                CheckPackets()
            }
        :: else
        fi;
        view = AT(view + length);
        held--;
        length = 0;
        if
        :: node == SINK && isPacket ->
progress:
            isPacket = false
        :: else ->
            isPacket = false
        fi
    od
}

init {
    atomic {
        avail[0] = SIZE;
        for (k : 1 .. SINK) {
            run Reader(k)
        }
    }
}
