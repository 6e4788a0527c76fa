# SPDX-License-Identifier: Apache-2.0
"""The master and the local agents: their clauses, connections and disconnections."""
import asyncio
import itertools
import socket

from soak.workers import cut
from support.wait import TIMEOUT

PING = b"<ping/>\r\n"
CLOSING = b"\r\n"


class Master:
    """Listens for the daemon's connections between `appear` and `vanish`."""

    def __init__(self, run):
        self._run = run
        self._listener = None
        self._links = []

    def appear(self):
        self._listener = socket.socket()
        self._listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._listener.bind(("127.0.0.1", 5112))
        self._listener.listen(16)
        self._listener.setblocking(False)

    def vanish(self):
        """Closes the port and every connection."""
        self._listener.close()
        self._listener = None
        for link in self._links:
            link.close()
        self._links.clear()

    async def accept(self):
        """The daemon's next connection."""
        with self._run.waiting("the daemon to dial"):
            connected, _ = await asyncio.wait_for(
                asyncio.get_running_loop().sock_accept(self._listener), TIMEOUT)
        self._links.append(await self._run.link(connected))
        return self._links[-1]


class Story:
    """Takes one master and one agent through every event between them."""

    def __init__(self, run, work, pause):
        self._run, self._work, self._pause = run, work, pause
        self._master = Master(run)
        self._names = itertools.count(1)
        self._slave = None

    async def go(self):
        """Runs one episode after the other while the run works."""
        self._master.appear()
        self._slave = await self._master.accept()
        episodes = (self._visit, self._replacement, self._bridge_lost, self._slave_lost,
                    self._master_away, self._visit_without_master)
        while self._run.working:
            await self._ask_slave()
            await self._run.random.choice(episodes)()
            await self._ask_slave()
            await self._run.pause(self._pause)
        await self._slave.ask(*self._work.small)
        self._master.vanish()

    async def _ask_slave(self):
        for question in self._run.random.choices(self._work.mixed, k=5):
            await self._slave.ask(*question)

    def _clause(self):
        name = b"n%d" % next(self._names)
        if self._run.random.randrange(3) == 0:
            return b"<%b with='%b'/>" % (name, name)
        size = self._run.random.choice((10, 100, 1000, 100000))
        return b"<%b>%b</%b>" % (name, b"text<br/> " * (size // 10), name)

    async def _relay(self, origin, target):
        """Checks that clauses from @p origin, sent in pieces, reach @p target."""
        for _ in range(self._run.random.randrange(1, 6)):
            clause = self._clause()
            for piece in cut(self._run, clause + CLOSING):
                origin.send(piece)
                await asyncio.sleep(self._run.random.random() / 100)
            await target.expect(clause + CLOSING, "a relayed clause")
            if self._run.random.randrange(4) == 0:
                origin.send(PING)
                await target.expect(PING, "a relayed ping")
            self._run.counts["clauses relayed"] += 1

    async def _arrive(self):
        """A new agent that has sent a clause, which the master has not read yet."""
        agent = await self._run.connect()
        hello = self._clause()
        agent.send(hello)
        return agent, hello + CLOSING

    async def _bridged(self):
        agent, hello = await self._arrive()
        bridge = await self._master.accept()
        await bridge.expect(hello, "an agent's first words")
        await self._relay(agent, bridge)
        await self._relay(bridge, agent)
        return agent, bridge

    async def _leave(self, agent, bridge):
        if self._run.random.randrange(2):
            agent.close()
        else:
            agent.reset()
        await bridge.expect_end("the end of a bridge whose agent left")
        bridge.close()

    async def _visit(self):
        await self._leave(*await self._bridged())
        self._run.counts["agents that came and went"] += 1

    async def _replacement(self):
        old, bridge = await self._bridged()
        new, hello = await self._arrive()
        await bridge.expect(hello, "the new agent's first words")
        await self._relay(bridge, new)
        old.send(b"<late/>")
        await old.expect_end("the end of a replaced agent")
        old.close()
        await self._relay(new, bridge)
        await self._leave(new, bridge)
        self._run.counts["agents replaced"] += 1

    async def _bridge_lost(self):
        agent, bridge = await self._bridged()
        bridge.close()
        await agent.expect_end("the end of an agent whose bridge is gone")
        agent.close()
        self._run.counts["bridges lost"] += 1

    async def _slave_lost(self):
        agent, bridge = await self._bridged()
        self._slave.close()
        await agent.expect_end("the end of an agent, with the slave connection's")
        await bridge.expect_end("the end of a bridge, with the slave connection's")
        agent.close()
        bridge.close()
        self._slave = await self._master.accept()
        self._run.counts["slave connections lost"] += 1

    async def _master_away(self):
        agent, _ = await self._bridged()
        self._master.vanish()
        await agent.expect_end("the end of an agent whose master vanished")
        agent.close()
        await asyncio.sleep(self._run.random.random() * 2)
        self._master.appear()
        self._slave = await self._master.accept()
        self._run.counts["masters that vanished and returned"] += 1

    async def _settle(self):
        """Lets the daemon handle earlier events: each answer takes another pass of its loop."""
        client = await self._run.connect()
        for _ in range(3):
            await client.ask(*self._work.small)
        client.close()

    async def _visit_without_master(self):
        self._master.vanish()
        await self._settle()  # otherwise the lost slave connection would close the new agent
        agent, hello = await self._arrive()
        await asyncio.sleep(self._run.random.random())
        self._master.appear()
        self._slave = await self._master.accept()
        bridge = await self._master.accept()
        await bridge.expect(hello, "what an agent said while the master was away")
        await self._relay(bridge, agent)
        await self._leave(agent, bridge)
        self._run.counts["agents that waited for the master"] += 1
