"""Passes datagrams between a client and a server, both ways, later than they came and not all of
them:
udp_relay.py LISTEN_ADDRESS LISTEN_PORT SERVER_ADDRESS SERVER_PORT LOSS DELAY FIRST [COUNT]

LOSS is the part that is lost, 0 to 1, of the datagrams from number FIRST on, or of COUNT of them;
DELAY is in seconds. What is lost is the same in every run of the same traffic. Writes "ready" when it
listens; at the end of its standard input it writes "lost N of M" and ends."""

import heapq
import random
import selectors
import socket
import sys
import time


def main(listen_address, listen_port, server_address, server_port, *what):
    loss, delay, first = float(what[0]), float(what[1]), int(what[2])
    end = first + int(what[3]) if len(what) > 3 else sys.maxsize
    chance = random.Random(1)
    client_side = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    client_side.bind((listen_address, int(listen_port)))
    server_side = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    server_side.connect((server_address, int(server_port)))
    for one in (client_side, server_side):
        one.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
        one.setblocking(False)
    selector = selectors.DefaultSelector()
    selector.register(client_side, selectors.EVENT_READ)
    selector.register(server_side, selectors.EVENT_READ)
    selector.register(sys.stdin, selectors.EVENT_READ)
    print("ready", flush=True)

    client = None
    waiting = []  # (when due, number, socket that came in on, datagram)
    seen = lost = 0
    while True:
        now = time.monotonic()
        while waiting and waiting[0][0] <= now:
            _, _, came_in_on, datagram = heapq.heappop(waiting)
            try:
                if came_in_on is client_side:
                    server_side.send(datagram)
                elif client is not None:
                    client_side.sendto(datagram, client)
            except (BlockingIOError, ConnectionRefusedError):
                pass  # lost like any other
        timeout = max(0, waiting[0][0] - time.monotonic()) if waiting else None
        for key, _ in selector.select(timeout):
            if key.fileobj is sys.stdin:
                print(f"lost {lost} of {seen}", flush=True)
                return
            try:
                datagram, sender = key.fileobj.recvfrom(65536)
            except (BlockingIOError, ConnectionRefusedError):
                continue
            if key.fileobj is client_side:
                client = sender
            seen += 1
            if first <= seen < end and chance.random() < loss:
                lost += 1
            else:
                due = time.monotonic() + delay
                heapq.heappush(waiting, (due, seen, key.fileobj, datagram))


if __name__ == "__main__":
    main(*sys.argv[1:])
