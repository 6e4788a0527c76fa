# SPDX-License-Identifier: Apache-2.0
"""The master, with the real daemon and with scripted devices."""
import asyncio
import unittest.mock

from runel import AgentConnected, AgentLost, Clause, Connected, LinkError, LocalError, Lost, Outcome
from runel import RunelTimeout, _roles
from support import ADDRESS, LONG, Daemon, DaemonCase, Dialer, FaceCase, both_faces, wait_until

NOT_SENT = Outcome.NOT_SENT


class MasterCase(FaceCase):
    async def device_of(self, master):
        return (await master.wait_for(1, LONG))[0]

    async def next_of(self, master, kind):
        """The next event of this kind; skips others."""
        for _ in range(10000):
            event = await master.next_event(LONG)
            self.assertIsNotNone(event, kind)
            if isinstance(event, kind):
                return event
        return self.fail(f"no {kind}")


@both_faces
class RealTest(DaemonCase, MasterCase):
    async def test_tasks(self):
        async with self.Master() as master:
            device = await self.device_of(master)
            self.assertEqual(await device.hostid(), device.name)
            found = await asyncio.gather(*(device.fileexists("/etc") for _ in range(20)))
            self.assertEqual(found, [True] * 20)
            event = await self.next_of(master, Connected)
            self.assertEqual((event.device, event.hostid), (device.name, device.name))

    async def test_relay_both_ways(self):
        async with self.Master() as master:
            device = await self.device_of(master)
            async with self.Agent() as agent:
                await agent.send(b"<status>up</status>")
                await agent.send(b"<more/>")
                self.assertEqual((await self.next_of(master, AgentConnected)).device, device.name)
                self.assertEqual((await self.next_of(master, Clause)).clause, b"<status>up</status>")
                self.assertEqual((await self.next_of(master, Clause)).clause, b"<more/>")
                await master.send_clause(device.name, b"<install>7</install>")
                await master.send_clause(ADDRESS, b"<go/>")
                self.assertEqual([clause async for clause in self.two(agent)],
                                 [b"<install>7</install>", b"<go/>"])
                self.assertTrue(await device.fileexists("/"))
            await self.next_of(master, AgentLost)
            self.assertTrue(await (await self.device_of(master)).fileexists("/"))

    async def two(self, agent):
        for _ in range(2):
            yield await agent.receive(LONG)

    async def test_agents_in_sequence(self):
        async with self.Master() as master:
            for number in range(3):
                async with self.Agent() as agent:
                    await agent.send(b"<n%d/>" % number)
                    self.assertEqual((await self.next_of(master, Clause)).clause, b"<n%d/>" % number)
                await self.next_of(master, AgentLost)

    async def test_a_master_that_restarts(self):
        for _ in range(3):
            async with self.Master() as master:
                self.assertTrue(await (await self.device_of(master)).fileexists("/"))

    async def test_clauses_that_cannot_be_sent(self):
        async with self.Master() as master:
            device = await self.device_of(master)
            await self.fails(LinkError, NOT_SENT, master.send_clause(device.name, b"<a/>"))
            for clause in (b"<a>", b"\x01", b"text", b"<a/><b/>", b""):
                await self.fails(LocalError, NOT_SENT, master.send_clause(device.name, clause))
            async with self.Agent() as agent:
                await self.fails(LocalError, NOT_SENT, agent.send(b"<a>\x02</a>"))
                await agent.ping()
                self.assertEqual((await self.next_of(master, Clause)).clause, b"<ping/>")
            await self.next_of(master, AgentLost)  # otherwise the next test's master receives it


@both_faces
class LifeTest(MasterCase):
    async def test_short_lived_agents_while_the_master_is_down(self):
        daemon = Daemon()
        self.addCleanup(daemon.close)
        for _ in range(4):
            async with self.Agent() as agent:
                await agent.send(b"<early/>")
        async with self.Master() as master:
            device = await self.device_of(master)
            self.assertTrue(await device.fileexists("/"))
            async with self.Agent() as agent:
                await agent.send(b"<late/>")
                for _ in range(100):
                    if (await self.next_of(master, Clause)).clause == b"<late/>":
                        break
            self.assertTrue(await (await self.device_of(master)).fileexists("/"))
            self.assertIsNone(daemon.process.poll())

    async def test_a_device_that_restarts(self):
        daemon = Daemon()
        async with self.Master() as master:
            device = await self.device_of(master)
            await device.restart()
            await asyncio.to_thread(daemon.close)
            self.assertEqual((await self.next_of(master, Lost)).device, device.name)
            await self.fails(LinkError, NOT_SENT, device.hostid())
            again = Daemon()
            self.addCleanup(again.close)
            await self.next_of(master, Connected)
            self.assertTrue(await (await self.device_of(master)).fileexists("/"))

    async def test_a_port_in_use(self):
        async with self.Master(ADDRESS):
            await self.fails(LinkError, NOT_SENT, self.Master(ADDRESS).open())

    async def test_wait_for_times_out(self):
        async with self.Master(port=0) as master:
            error = await self.fails(RunelTimeout, NOT_SENT, master.wait_for(1, 0.05))
            self.assertIn("0 of 1 devices", str(error))
            self.assertIsNone(await master.next_event(0.05))

    async def test_events_end_with_the_master(self):
        master = self.Master(port=0)
        await master.open()
        waiting = asyncio.ensure_future(master.next_event())
        await asyncio.sleep(0.05)
        await master.close()
        self.assertIsNone(await waiting)


@both_faces
class RoleTest(MasterCase):
    """The roles of connections, with scripted devices: a daemon rarely causes these cases."""

    def dial(self, master, source=ADDRESS, hostid=b"", answers=True):
        dialer = Dialer(master.port, source, hostid, answers)
        self.addCleanup(dialer.close)
        return dialer

    async def names(self, master, count):
        await master.wait_for(count, LONG)
        return sorted(master.devices)

    async def test_devices_by_hostid_and_by_address(self):
        async with self.Master(port=0) as master:
            self.dial(master, "127.0.0.2", b"gw-2")
            self.dial(master, "127.0.0.3", b"not usable\n")
            self.dial(master, "127.0.0.4", b"")
            self.assertEqual(await self.names(master, 3), ["127.0.0.3", "127.0.0.4", "gw-2"])

    async def test_two_devices_of_one_hostid(self):
        async with self.Master(port=0) as master:
            for number in (2, 3):
                self.dial(master, f"127.0.0.{number}", b"clone")
                await master.wait_for(number - 1, LONG)
            self.assertEqual(await self.names(master, 2), ["127.0.0.3", "clone"])

    async def test_nothing_is_written_to_further_connections(self):
        with unittest.mock.patch.object(_roles, "OUTLIVE", 0.3):
            async with self.Master(port=0) as master:
                self.dial(master, hostid=b"gw")
                await master.wait_for(1, LONG)
                further = [self.dial(master, answers=False) for _ in range(3)]
                await asyncio.sleep(0.6)
                self.assertTrue(all(dialer.nothing_came() for dialer in further))
                await self.fails(LinkError, NOT_SENT, master.send_clause("gw", b"<a/>"))

    async def test_a_further_connection_that_outlives_the_first_replaces_it(self):
        with unittest.mock.patch.object(_roles, "OUTLIVE", 0.3):
            async with self.Master(port=0) as master:
                first = self.dial(master, hostid=b"gw")
                await self.next_of(master, Connected)
                second = self.dial(master, hostid=b"gw")
                await asyncio.sleep(0.1)
                self.assertEqual(second.asked, [])
                first.close()
                await self.next_of(master, Lost)
                self.assertEqual((await self.next_of(master, Connected)).device, "gw")
                self.assertEqual(second.asked, [b"hostid", b"devicetype"])

    async def test_a_further_connection_causes_a_check_of_the_first(self):
        async with self.Master(port=0) as master:
            first = self.dial(master, hostid=b"gw")
            await self.next_of(master, Connected)
            self.dial(master, answers=False)
            await asyncio.to_thread(wait_until, lambda: b"fileexists" in first.asked, "it is asked")

    async def test_a_bridge_that_sent_bytes_never_gets_a_frame(self):
        with unittest.mock.patch.object(_roles, "OUTLIVE", 0.2):
            async with self.Master(port=0) as master:
                first = self.dial(master, hostid=b"gw")
                await self.next_of(master, Connected)
                bridge = self.dial(master, answers=False)
                bridge.wire.send(b"\r\n<a/>")
                await self.next_of(master, Clause)
                first.close()
                await asyncio.sleep(0.5)
                self.assertTrue(bridge.nothing_came())

    async def test_an_agent_gets_the_name_of_a_device_that_identifies_later(self):
        async with self.Master(port=0) as master:
            slave = self.dial(master, hostid=b"gw", answers=False)
            self.dial(master, answers=False).wire.send(b"<early/>")
            await asyncio.sleep(0.2)
            slave.answer()
            events = [await master.next_event(LONG) for _ in range(3)]
            self.assertEqual([type(event) for event in events], [Connected, AgentConnected, Clause])
            self.assertEqual([event.device for event in events], ["gw"] * 3)

    async def test_several_devices_behind_one_address(self):
        async with self.Master(port=0, shared=0.2) as master:
            for name in (b"one", b"two", b"three"):
                self.dial(master, hostid=name)
            self.assertEqual(await self.names(master, 3), ["one", "three", "two"])

    async def test_a_connection_that_sends_no_clause(self):
        async with self.Master(port=0) as master:
            self.dial(master, hostid=b"gw")
            await self.next_of(master, Connected)
            bridge = self.dial(master, answers=False)
            bridge.wire.send(b"text")
            self.assertEqual(await asyncio.to_thread(bridge.wire.sock.recv, 1), b"")
            self.assertTrue(await (await self.device_of(master)).fileexists("/"))

    async def test_a_device_that_does_not_answer(self):
        async with self.Master(port=0, timeout=0.1) as master:
            silent = self.dial(master, answers=False)
            self.assertEqual(await asyncio.to_thread(self.rest_of, silent), [b"hostid"])
            self.assertEqual(master.devices, {})

    def rest_of(self, dialer):
        asked = []
        while (args := dialer.wire.take()) is not None:
            asked.append(args[0])
        return asked

    async def test_unread_events_are_bounded(self):
        async with self.Master(port=0) as master:
            self.dial(master, hostid=b"gw")
            await master.wait_for(1, LONG)
            bridge = self.dial(master, answers=False)
            bridge.wire.send(b"<a/>" * 5000)
            await self.until(lambda: master.dropped_events > 0)
            self.assertIsInstance(await master.next_event(LONG), (AgentConnected, Clause))
