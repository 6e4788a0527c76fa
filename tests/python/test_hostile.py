# SPDX-License-Identifier: Apache-2.0
"""Scripted devices that are slow, silent, lost or hostile."""
import asyncio
import errno
import socket
import threading
import time

import runel
from runel import _io_async as io
from runel import DeviceError, LinkError, LocalError, Outcome, RunelTimeout, request
from support import ADDRESS, LONG, FaceCase, FakeDevice, both_faces, reply

NOT_SENT, ANSWERED, UNKNOWN = Outcome.NOT_SENT, Outcome.ANSWERED, Outcome.UNKNOWN


class ScriptCase(FaceCase):
    def fake(self, script):
        fake = FakeDevice(script)
        self.addCleanup(fake.close)
        return fake

    def answering(self, *answers):
        """A device that sends one of these texts per request, then closes the connection."""
        def script(wire, _number):
            for answer in answers:
                wire.take()
                wire.send(answer)
        return self.fake(script)

    def device(self, fake, **options):
        return self.Device(fake.address, **{"retry_delay": 0.01, "timeout": LONG, **options})


@both_faces
class MalformedTest(ScriptCase):
    BAD = (b"\x01x", b"\x0105\x02hello", b"\x011000000000", b"\x015\x02hello",
           b"\x0142\x02SlaveTask 2 10:fileexists 1:/ 0 0: 0 0 0 0 0",
           reply(status=9), reply(state=9), reply()[:-1] + b"x")

    async def test_a_malformed_reply_ends_the_connection(self):
        for answer in self.BAD:
            with self.subTest(answer):
                async with self.device(self.answering(answer)) as device:
                    error = await self.fails(LinkError, UNKNOWN, device.append("/f", b"x"))
                    self.assertIn("malformed answer", str(error))

    async def test_a_reply_above_the_limit_of_the_task_is_refused(self):
        async with self.device(self.answering(b"\x01268435456\x02"), retries=0) as device:
            error = await self.fails(LinkError, UNKNOWN, device.hostid())
            self.assertIn("where at most 65536", str(error))

    async def test_another_protocol(self):
        for banner, name in ((b"SSH-2.0-x\r\n", "SSH"), (b"HTTP/1.0 400\r\n", "web"), (b"?", "another")):
            fake = self.fake(lambda wire, _, banner=banner: (wire.send(banner), wire.take()))
            async with self.device(fake, retries=0) as device:
                with self.subTest(banner):
                    with self.assertRaisesRegex(LinkError, f"not a runeld.*{name}"):
                        await device.hostid()

    async def test_an_unexpected_answer(self):
        async with self.device(self.answering(reply() + reply())) as device:
            await device.fileexists("/")
            link = getattr(device, "plain", device)._link
            await self.until(lambda: link.failure is not None)
            self.assertIn("without a request", link.failure.sentence)

    async def test_a_malformed_text(self):
        for task in ("stat", "lstat", "readdir", "walktree", "freeblocks"):
            async with self.device(self.answering(reply(b"nonsense"))) as device:
                with self.subTest(task):
                    await self.fails(LinkError, ANSWERED, getattr(device, task)("/f"))

    async def test_byte_by_byte(self):
        def script(wire, _number):
            wire.take()
            for byte in reply(b"content of a file"):
                wire.send(bytes([byte]))
        async with self.device(self.fake(script)) as device:
            self.assertEqual(await device.read("/f"), b"content of a file")


@both_faces
class LostTest(ScriptCase):
    async def test_no_listener(self):
        with socket.create_server((ADDRESS, 0)) as closed:
            address = "%s:%d" % closed.getsockname()
        async with self.Device(address, retries=0) as device:
            error = await self.fails(LinkError, NOT_SENT, device.hostid())
            self.assertEqual((error.errno, error.device), (errno.ECONNREFUSED, address))

    async def test_no_such_host(self):
        async with self.Device("no-such-host.invalid", retries=0) as device:
            await self.fails(LinkError, NOT_SENT, device.hostid())

    async def test_an_end_in_the_middle_of_an_answer(self):
        async with self.device(self.answering(reply(b"content")[:-5])) as device:
            await self.fails(LinkError, UNKNOWN, device.append("/f", b"x"))

    async def test_a_safe_request_is_retried(self):
        def script(wire, number):
            wire.take()
            if number == 2:
                wire.send(reply(b"content"))
                wire.take()
        fake = self.fake(script)
        async with self.device(fake) as device:
            self.assertEqual(await device.read("/f"), b"content")
        self.assertEqual(fake.connections, 2)

    async def test_an_unsafe_request_is_not_retried(self):
        for work in (lambda device: device.append("/f", b""), lambda device: device.unlink("/f"),
                     lambda device: device.exec(["x"]), lambda device: device.rename("/f", "/g"),
                     lambda device: device.kill(), lambda device: device.wait(),
                     lambda device: device.reboot()):
            fake = self.fake(lambda wire, _number: wire.take())
            async with self.device(fake, retries=5) as device:
                await self.fails(LinkError, UNKNOWN, work(device))
            self.assertEqual(fake.connections, 1)

    async def test_a_request_that_was_sent_in_part_did_not_run(self):
        def script(wire, _number):
            wire.sock.recv(1)
            wire.reset()
        fake = self.fake(script)
        async with self.device(fake, retries=2) as device:
            await self.fails(LinkError, NOT_SENT, device.append("/f", bytes(24 << 20)))
        self.assertEqual(fake.connections, 3)

    async def texts_of(self, device, requests):
        """The texts of the replies until the connection fails, and the outcome of the error."""
        texts = []
        try:
            async for answer in device.pipeline(requests):
                texts.append(answer.text)
        except LinkError as error:
            return texts, error.outcome
        return texts, None

    async def test_a_pipeline_yields_the_answers_before_a_failure(self):
        def script(wire, _number):
            for _ in range(3):
                wire.take()
            wire.send(reply(b"one") + reply(b"two"))
        async with self.device(self.fake(script)) as device:
            found = await self.texts_of(device, [request("read", "/f")] * 3)
        self.assertEqual(found, ([b"one", b"two"], UNKNOWN))

    async def test_a_pipeline_yields_its_answers_before_a_failure_to_send(self):
        async with self.device(self.answering(reply(b"one"))) as device:
            too_large = request("write", "/f", bytes(268435457))
            texts = []
            with self.assertRaises(LocalError):
                async for answer in device.pipeline([request("read", "/f"), too_large]):
                    texts.append(answer.text)
        self.assertEqual(texts, [b"one"])

    async def test_a_pipeline_refuses_a_task_without_an_answer(self):
        async with self.device(self.answering(reply(b"one"))) as device:
            with self.assertRaisesRegex(LocalError, "no answer to wait for"):
                await self.texts_of(device, [request("read", "/f"), request("restart")])
            await self.fails(LocalError, NOT_SENT, device.ask(request("restart")))

    async def test_all_pending_requests_fail(self):
        taken = threading.Event()

        def script(wire, _number):
            for _ in range(3):
                wire.take()
            taken.set()
        async with self.device(self.fake(script), retries=0) as device:
            found = await asyncio.gather(*(device.unlink("/f") for _ in range(3)),
                                         return_exceptions=True)
        self.assertTrue(taken.is_set())
        self.assertEqual([error.outcome for error in found], [UNKNOWN] * 3)

    async def test_close_ends_pending_requests(self):
        taken = threading.Event()

        def script(wire, _number):
            wire.take()
            taken.set()
            wire.take()
        device = self.device(self.fake(script), retries=0)
        waiting = asyncio.ensure_future(device.unlink("/f"))
        await asyncio.to_thread(taken.wait, LONG)
        await device.close()
        await self.fails(LinkError, UNKNOWN, waiting)

    async def test_an_idle_connection_that_ended_is_reestablished(self):
        def script(wire, _number):
            wire.take()
            wire.send(reply(b"id"))
        fake = self.fake(script)
        async with self.device(fake) as device:
            self.assertEqual([await device.hostid() for _ in range(3)], ["id"] * 3)

    async def test_the_program_of_a_lost_connection_is_not_addressed_on_another(self):
        def script(wire, number):
            wire.take()
            wire.send(reply(status=2, state=1))
            if number > 1:
                wire.take()
        fake = self.fake(script)
        async with self.device(fake) as device:
            await device.exec(["sleep", "9"], limit=-1)
            await device.close()
            error = await self.fails(LinkError, NOT_SENT, device.kill())
            self.assertIn("connection that started the program", str(error))

    async def test_restart_succeeds_when_the_connection_ends(self):
        async with self.device(self.fake(lambda wire, _number: wire.take())) as device:
            await device.restart()

    async def test_restart_has_an_unknown_outcome_after_a_reset(self):
        def script(wire, _number):
            wire.take()
            wire.reset()
        async with self.device(self.fake(script)) as device:
            await self.fails(LinkError, UNKNOWN, device.restart())


@both_faces
class TimeoutTest(ScriptCase):
    def silent(self):
        return self.fake(lambda wire, _number: (wire.take(), wire.take()))

    async def test_a_silent_device(self):
        fake = self.silent()
        async with self.device(fake, timeout=0.2) as device:
            error = await self.fails(RunelTimeout, UNKNOWN, device.read("/f"))
            self.assertIn("silent for 0.2 s", str(error))
        self.assertEqual(fake.connections, 1)

    async def test_a_device_that_reads_nothing(self):
        hold = threading.Event()
        self.addCleanup(hold.set)
        async with self.device(self.fake(lambda wire, _number: hold.wait(LONG)), timeout=0.2,
                               retries=0) as device:
            await self.fails(RunelTimeout, NOT_SENT, device.write("/f", bytes(24 << 20)))

    async def test_a_slow_but_steady_answer(self):
        def script(wire, _number):
            wire.take()
            for byte in reply(b"content"):
                time.sleep(0.03)
                wire.send(bytes([byte]))
        async with self.device(self.fake(script), timeout=1.0) as device:
            self.assertEqual(await device.read("/f"), b"content")

    async def test_the_limit_of_a_program_extends_the_timeout(self):
        def script(wire, _number):
            wire.take()
            time.sleep(0.5)
            wire.send(reply(state=2))
        async with self.device(self.fake(script), timeout=0.2) as device:
            self.assertTrue((await device.exec(["x"], limit=1)).ok)

    async def test_a_program_without_limit_is_waited_for(self):
        def script(wire, _number):
            for _ in range(2):
                wire.take()
                time.sleep(0.5)
                wire.send(reply(state=2))
        async with self.device(self.fake(script), timeout=0.2) as device:
            self.assertTrue((await device.exec(["x"])).ok)
            self.assertTrue((await device.wait()).ok)

    async def test_aborted_permanently(self):
        device = self.device(self.silent())
        waiting = asyncio.ensure_future(device.unlink("/f"))
        await asyncio.sleep(0.1)
        getattr(device, "plain", device).abort("given up")
        with self.assertRaisesRegex(RunelTimeout, "given up"):
            await waiting
        await self.fails(RunelTimeout, NOT_SENT, device.hostid())


@both_faces
class AnswerTest(ScriptCase):
    async def test_errors_of_the_device(self):
        async with self.device(self.answering(reply(status=1, result=1, errno=13))) as device:
            error = await self.fails(DeviceError, ANSWERED, device.read("/f"))
            self.assertEqual((error.errno, error.task, error.kind), (13, "read", "device"))
            self.assertIn("read: /f: Permission denied", str(error))

    async def test_a_refusal(self):
        answer = reply(b"(9) unknown cmd: read", status=4, result=1, errno=71)
        async with self.device(self.answering(answer)) as device:
            with self.assertRaisesRegex(DeviceError, "refused: .*unknown cmd"):
                await device.read("/f")

    async def test_boolean_answers(self):
        no = {"fileexists": (2, 20), "access": (1, 2, 13, 20, 30), "processrunning": (3,)}
        for task, numbers in no.items():
            args = ("/f", 4) if task == "access" else ("/f",)
            for number in numbers:
                async with self.device(self.answering(reply(status=1, errno=number))) as device:
                    self.assertIs(await getattr(device, task)(*args), False)
            async with self.device(self.answering(reply(status=1, errno=5))) as device:
                await self.fails(DeviceError, ANSWERED, getattr(device, task)(*args))

    async def test_arguments_that_cannot_be_sent(self):
        for work in (lambda device: device.exec([]), lambda device: device.read("/a", "b")):
            async with self.Device(ADDRESS) as device:
                with self.assertRaises((LocalError, TypeError)):
                    await work(device)
        for address in ("", ":1", "h:0", "h:x", "h:99999"):
            with self.assertRaises(LocalError):
                self.Device(address)


class AsyncOnlyTest(ScriptCase):
    face = "async"

    async def test_a_cancelled_caller_does_not_affect_others(self):
        go = threading.Event()

        def script(wire, _number):
            first, second = wire.take(), wire.take()
            go.wait(LONG)
            wire.send(reply(first[1]) + reply(second[1]))
        async with runel.AsyncDevice(self.fake(script).address) as device:
            first = asyncio.ensure_future(device.read("one"))
            second = asyncio.ensure_future(device.read("two"))
            await asyncio.sleep(0.1)
            first.cancel()
            with self.assertRaises(asyncio.CancelledError):
                await first
            go.set()
            self.assertEqual(await second, b"two")

    async def test_a_cancellation_is_never_lost(self):
        """Not even when what the caller waits for happens at the same moment."""
        loop = asyncio.get_running_loop()
        with socket.create_server((ADDRESS, 0)) as server:
            for turns in range(12):
                near = socket.create_connection(server.getsockname())
                near.setblocking(False)
                far = server.accept()[0]
                stream = io.Stream(near)
                received = asyncio.ensure_future(stream.receive(LONG))
                await asyncio.sleep(0.01)
                far.sendall(b"x")
                for _ in range(turns):
                    await asyncio.sleep(0)
                if received.cancel():
                    with self.assertRaises(asyncio.CancelledError, msg=f"{turns} turns"):
                        await received
                stream.close()
                far.close()
        self.assertFalse([task for task in asyncio.all_tasks(loop)
                          if task is not asyncio.current_task()])

    async def test_a_timeout_does_not_count_as_a_cancellation(self):
        with socket.create_server((ADDRESS, 0)) as server:
            near = socket.create_connection(server.getsockname())
            near.setblocking(False)
            stream = io.Stream(near)
            with self.assertRaises(TimeoutError):
                await stream.receive(0.01)
            stream.close()
        task = asyncio.current_task()
        self.assertEqual(task.cancelling() if hasattr(task, "cancelling") else 0, 0)
