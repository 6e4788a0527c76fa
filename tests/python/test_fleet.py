# SPDX-License-Identifier: Apache-2.0
"""One job on many devices: one daemon with many addresses, and scripted devices."""
import threading

from runel import DeviceError, FleetError, LinkError, RunelTimeout
from support import DaemonCase, FakeDevice, LONG, both_faces, reply

ADDRESSES = [f"127.0.0.{number}" for number in range(1, 9)]
NO_LISTENER = "127.0.0.1:1"


@both_faces
class FleetTest(DaemonCase):
    async def test_results_by_name(self):
        self.file("f", b"content")
        report = await self.Fleet(ADDRESSES, parallel=3).run(lambda device: device.read(self.path("f")))
        self.assertEqual(report.check(), dict.fromkeys(ADDRESSES, b"content"))

    async def test_failures_by_name(self):
        fleet = self.Fleet([ADDRESSES[0], NO_LISTENER], retries=0)
        report = await fleet.run(lambda device: device.hostid())
        self.assertEqual((list(report.results), list(report.failures)), ([ADDRESSES[0]], [NO_LISTENER]))
        self.assertIsInstance(report.failures[NO_LISTENER], LinkError)
        with self.assertRaisesRegex(FleetError, f"1 failed, 0 skipped: {NO_LISTENER}"):
            report.check()

    async def test_a_failed_task_and_an_error_of_the_job(self):
        fleet = self.Fleet(ADDRESSES[:1])
        report = await fleet.run(lambda device: device.read("/none"))
        self.assertIsInstance(report.failures[ADDRESSES[0]], DeviceError)
        report = await fleet.run(lambda device: {}["key"])
        self.assertIsInstance(report.failures[ADDRESSES[0]], KeyError)

    async def test_waves_stop_at_the_first_failure(self):
        names = [ADDRESSES[0], NO_LISTENER, *ADDRESSES[1:4]]
        fleet = self.Fleet(names, retries=0)
        report = await fleet.run(lambda device: device.hostid(), waves=(1, 1, "rest"))
        self.assertEqual((list(report.results), list(report.failures), report.skipped),
                         ([ADDRESSES[0]], [NO_LISTENER], ADDRESSES[1:4]))
        report = await fleet.run(lambda device: device.hostid(), waves=(1, "rest"), max_failures=1)
        self.assertEqual(len(report.results), 4)

    async def test_the_maximum_number_of_failures(self):
        names = [f"127.0.0.{number}:1" for number in range(1, 7)]
        fleet = self.Fleet(names, retries=0, parallel=1)
        report = await fleet.run(lambda device: device.hostid(), max_failures=2)
        self.assertEqual((len(report.failures), len(report.skipped)), (3, 3))

    async def test_the_limit_of_parallel_jobs(self):
        together, most, guard = [], [], threading.Lock()
        go = threading.Event()

        def script(wire, _number):
            wire.take()
            with guard:
                together.append(wire)
                most.append(len(together))
                if len(most) == 3:
                    go.set()
            go.wait(LONG)
            with guard:
                together.remove(wire)
            wire.send(reply(b"id"))
            wire.take()
        fakes = [FakeDevice(script) for _ in range(9)]
        for fake in fakes:
            self.addCleanup(fake.close)
        report = await self.Fleet([fake.address for fake in fakes], parallel=3).run(
            lambda device: device.hostid())
        self.assertTrue(report.ok)
        self.assertEqual(max(most), 3)

    async def test_the_time_limit_of_a_device(self):
        fake = FakeDevice(lambda wire, _number: (wire.take(), wire.take()))
        self.addCleanup(fake.close)
        report = await self.Fleet([fake.address, ADDRESSES[0]]).run(
            lambda device: device.unlink("/none/f"), limit=0.5)
        self.assertIsInstance(report.failures[fake.address], RunelTimeout)
        self.assertIsInstance(report.failures[ADDRESSES[0]], DeviceError)

    async def test_retries(self):
        def script(wire, number):
            if number == 3:
                wire.take()
                wire.send(reply(b"id"))
                wire.take()
        fake = FakeDevice(script)
        self.addCleanup(fake.close)
        fleet = self.Fleet([fake.address], retries=2, retry_delay=0.01)
        self.assertEqual((await fleet.run(lambda device: device.hostid())).check(),
                         {fake.address: "id"})

    async def test_devices_of_a_master_stay_open(self):
        async with self.Master() as master:
            await master.wait_for(1, LONG)
            devices = {name: getattr(device, "plain", device)
                       for name, device in master.devices.items()}
            fleet = self.Fleet(devices)
            for _ in range(2):
                report = await fleet.run(lambda device: device.hostid())
                self.assertEqual(report.check(), {name: name for name in devices})
