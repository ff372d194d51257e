"""A slow line: takes the connections that the firewall turns to it, opens each to where it was
meant to go, and passes everything on a while later. Ends with its standard input.

Usage: relay.py PORT MILLISECONDS
"""

import asyncio
import socket
import struct
import sys
import time

SO_ORIGINAL_DST = 80
MARK = 81  # tells the firewall that this one is on its way already


def meant_for(connection):
    _, port, address = struct.unpack("!HH4s8x", connection.getsockopt(
        socket.SOL_IP, SO_ORIGINAL_DST, 16))
    return socket.inet_ntoa(address), port


async def pass_on(reader, writer, delay):
    """Each piece leaves `delay` seconds after it came; many can be on their way at once."""
    on_the_way = asyncio.Queue(maxsize=1000)

    async def deliver():
        while True:
            due, piece = await on_the_way.get()
            await asyncio.sleep(max(0, due - time.monotonic()))
            if not piece:
                writer.write_eof()
                return
            writer.write(piece)
            await writer.drain()

    async def collect():
        while True:
            piece = await reader.read(1 << 16)
            await on_the_way.put((time.monotonic() + delay, piece))
            if not piece:
                return

    await asyncio.gather(deliver(), collect())


def onward_socket():
    """Gives a silent line up as soon as the routers in the tests do."""
    connection = socket.socket()
    connection.setblocking(False)
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_MARK, MARK)
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_KEEPALIVE, 1)
    for option, value in ((socket.TCP_KEEPIDLE, 1), (socket.TCP_KEEPINTVL, 1),
                          (socket.TCP_KEEPCNT, 2), (socket.TCP_USER_TIMEOUT, 2000)):
        connection.setsockopt(socket.IPPROTO_TCP, option, value)
    return connection


async def relay(reader, writer, delay):
    sides = [writer]
    connection = onward_socket()
    try:
        await asyncio.sleep(delay)
        await asyncio.get_running_loop().sock_connect(
            connection, meant_for(writer.get_extra_info("socket")))
        other_reader, onward = await asyncio.open_connection(sock=connection)
        sides.append(onward)
        await asyncio.gather(pass_on(reader, onward, delay), pass_on(other_reader, writer, delay))
        for side in sides:
            side.close()
    except OSError:
        # One side's broken connection is the other's too.
        for side in sides:
            side.transport.abort()
        connection.close()


async def main(port, delay):
    await asyncio.start_server(lambda reader, writer: relay(reader, writer, delay),
                               "127.0.0.1", port)
    print("ready", flush=True)
    await asyncio.get_running_loop().run_in_executor(None, sys.stdin.read)


if __name__ == "__main__":
    asyncio.run(main(int(sys.argv[1]), float(sys.argv[2]) / 1000))
