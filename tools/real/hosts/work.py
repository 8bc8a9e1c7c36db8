# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT
"""Threads, children by fork and by exec, a timer's signals, and a data base in memory."""

import asyncio
import concurrent.futures
import hashlib
import multiprocessing
import os
import signal
import socket
import sqlite3
import subprocess
import threading
import time
import zlib

ticks = 0


def tick(_number, _frame):
    global ticks
    ticks += 1


def digest(seed):
    data = hashlib.sha256(str(seed).encode()).digest() * 20000
    for _ in range(4):
        data = zlib.decompress(zlib.compress(data, 6))
    return hashlib.sha512(data).hexdigest()


def table(rows):
    base = sqlite3.connect(":memory:")
    base.execute("create table t (k integer primary key, v text)")
    base.executemany("insert into t values (?, ?)", ((k, str(k * k)) for k in range(rows)))
    return base.execute("select count(*), sum(length(v)), max(v) from t").fetchone()


async def echo_over_loopback(size):
    async def serve(reader, writer):
        writer.write(await reader.readexactly(size))
        await writer.drain()
        writer.close()

    server = await asyncio.start_server(serve, "127.0.0.1", 0)
    async with server:
        reader, writer = await asyncio.open_connection(*server.sockets[0].getsockname())
        writer.write(b"x" * size)
        return len(await reader.read(-1))


def waits(seconds):
    """Sleeps are as long as they are told to be, and none ends early."""
    begin = time.monotonic()
    condition = threading.Condition()
    with condition:
        condition.wait(seconds)
    ends, others = socket.socketpair()
    ends.settimeout(seconds)
    try:
        ends.recv(1)
    except socket.timeout:
        pass
    others.close()
    return time.monotonic() - begin >= 2 * seconds


def main():
    signal.signal(signal.SIGALRM, tick)
    signal.setitimer(signal.ITIMER_REAL, 0.01, 0.01)
    with concurrent.futures.ThreadPoolExecutor(6) as pool:
        waiting = [pool.submit(waits, 0.2) for _ in range(3)]
        print(*pool.map(digest, range(60)), sep="\n")
        print(*pool.map(table, range(1000, 40000, 4000)))
        print(all(each.result() for each in waiting))
    with multiprocessing.get_context("fork").Pool(3) as pool:
        print(*pool.map(digest, range(60, 90)), sep="\n")
    for number in range(20):
        child = os.fork()
        if child == 0:
            os._exit(number)
        print(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]), end=" ")
        print(subprocess.run(["/usr/bin/python3", "-c", "print(6 * 7)"], stdout=subprocess.PIPE,
                             check=True).stdout)
    print(asyncio.run(echo_over_loopback(3000000)))
    signal.setitimer(signal.ITIMER_REAL, 0)
    print(ticks > 0)


main()
