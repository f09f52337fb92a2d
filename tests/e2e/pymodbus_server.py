"""A Modbus TCP server on pymodbus for the end-to-end tests.

Listens on 127.0.0.1 on a free port and prints "port=PORT pid=PID" once it
accepts connections. One memory map for every unit id, all four tables
0..0xFFFF, filled with a known pattern:
  holding register a = (0x1000 + a) & 0xFFFF   coil a = 1 when a % 3 == 0
  input register a   = (0x2000 + a) & 0xFFFF   discrete input a = 1 when a % 5 == 0
Stops on SIGTERM or SIGINT, or when its standard input closes.
"""
import asyncio
import os
import signal
import sys

from pymodbus.datastore import (ModbusSequentialDataBlock, ModbusServerContext,
                                ModbusSlaveContext)
from pymodbus.server.async_io import ModbusTcpServer

SIZE = 0x10000


async def main():
    store = ModbusSlaveContext(
        di=ModbusSequentialDataBlock(0, [1 if a % 5 == 0 else 0 for a in range(SIZE)]),
        co=ModbusSequentialDataBlock(0, [1 if a % 3 == 0 else 0 for a in range(SIZE)]),
        hr=ModbusSequentialDataBlock(0, [(0x1000 + a) & 0xFFFF for a in range(SIZE)]),
        ir=ModbusSequentialDataBlock(0, [(0x2000 + a) & 0xFFFF for a in range(SIZE)]),
        zero_mode=True)
    context = ModbusServerContext(slaves=store, single=True)
    server = ModbusTcpServer(context, address=("127.0.0.1", 0), allow_reuse_address=True)
    task = asyncio.ensure_future(server.serve_forever())
    await server.serving
    port = server.server.sockets[0].getsockname()[1]
    print(f"port={port} pid={os.getpid()}", flush=True)

    loop = asyncio.get_running_loop()
    done = loop.create_future()
    for sig in (signal.SIGTERM, signal.SIGINT):
        loop.add_signal_handler(sig, lambda: done.done() or done.set_result(True))
    loop.add_reader(sys.stdin.fileno(),
                    lambda: (sys.stdin.read(1) or done.done() or done.set_result(True)))
    await done
    await server.shutdown()
    task.cancel()


if __name__ == "__main__":
    asyncio.run(main())
