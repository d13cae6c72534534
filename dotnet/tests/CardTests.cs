// The .NET binding on the simulated card, through the Linux library: listing, capture, loopback
// byte for byte, statistics, errors, status blocks, and garbage collections while frames arrive.
using System;
using System.Threading;
using KvPCIe;
using NUnit.Framework;

namespace KvPCIe.Tests
{
    [TestFixture]
    public class CardTests
    {
        private const int Width = 64;
        private const int Height = 32;
        private const int FrameBytes = Width * Height;

        private static uint ControlBlock(int channel, uint offset)
        {
            return 0x1F1000u + (uint)channel * 0x1000u + offset;
        }

        [SetUp]
        public void FreshSimulatedCard()
        {
            Simulation.Configure("xdma:1,riffa:1");
        }

        // Waits up to 5 s for `done`, looking every 10 ms.
        private static bool Eventually(Func<bool> done)
        {
            for (int waited = 0; waited < 5000; waited += 10)
            {
                if (done())
                {
                    return true;
                }
                Thread.Sleep(10);
            }
            return done();
        }

        // Rounds of garbage and full collections, which move whatever is not pinned.
        private static void CollectWhileAllocating(int rounds)
        {
            for (int round = 0; round < rounds; ++round)
            {
                var garbage = new byte[64][];
                for (int i = 0; i < garbage.Length; ++i)
                {
                    garbage[i] = new byte[16384];
                }
                GC.Collect();
                GC.WaitForPendingFinalizers();
                Thread.Sleep(10);
            }
        }

        [Test]
        public void ListsTheSimulatedCardsAndTheVersion()
        {
            Assert.That(Card.Version, Is.StringMatching(@"^\d+\.\d+\.\d+$"));
            Assert.That(Card.ListXdma(), Is.EqualTo(new[] { "sim:xdma0" }));
            RiffaDevice[] riffa = Card.ListRiffa();
            Assert.That(riffa.Length, Is.EqualTo(1));
            Assert.That(riffa[0].Name, Is.EqualTo("KvSimRiffa"));
            Assert.That(riffa[0].VendorId, Is.EqualTo(0x10EE));
            Assert.That(Card.FrameBytes(PixelType.Bgr24, 10, 10), Is.EqualTo(300));
        }

        [Test]
        public void TwoCardsAreDrivenApartAndALostOneRaisesItsEventOnce()
        {
            Simulation.Configure("xdma:2");
            using (Card a = Card.Open("sim:xdma0"))
            using (Card b = Card.Open("sim:xdma1"))
            {
                a.WriteRegister(ControlBlock(0, 0x04), 100);
                b.WriteRegister(ControlBlock(0, 0x04), 20);
                Assert.That(a.ReadRegister(ControlBlock(0, 0x04)), Is.EqualTo(100u));
                Assert.That(b.ReadRegister(ControlBlock(0, 0x04)), Is.EqualTo(20u));

                int lostA = 0;
                int lostB = 0;
                a.CardLost += (sender, args) =>
                {
                    Assert.That(sender, Is.SameAs(a));
                    Interlocked.Increment(ref lostA);
                };
                b.CardLost += (sender, args) => Interlocked.Increment(ref lostB);
                int frames = 0;
                a.StartCapture(0, false, Width, Height, PixelType.Y8,
                               frame => Interlocked.Increment(ref frames));
                Assert.That(Eventually(() => Volatile.Read(ref frames) >= 3), Is.True);
                Simulation.SetRemoved(0, true);
                Assert.That(Eventually(() => Volatile.Read(ref lostA) == 1), Is.True);
                Assert.That(a.IsLost, Is.True);
                Assert.That(b.IsLost, Is.False);
                // The counts say so too: the records' flag and time sit where the C records
                // have them (the statistics records are made from the library's table).
                CaptureStatistics lostCounts = a.GetCaptureStatistics(0);
                Assert.That(lostCounts.CardLost, Is.True);
                Assert.That(lostCounts.CardLostAtMs, Is.GreaterThan(1600000000000L));
                Assert.That(lostCounts.FramesDelivered, Is.GreaterThanOrEqualTo(3UL));
                Assert.That(b.GetInjectStatistics(0).CardLost, Is.False);
                var error = Assert.Throws<KvPCIeException>(() => a.ReadRegister(0x1F0000));
                Assert.That(error.Status, Is.EqualTo(Status.CardLost));
                Assert.That(b.ReadRegister(ControlBlock(0, 0x04)), Is.EqualTo(20u));
                Thread.Sleep(100);
                Assert.That(lostA, Is.EqualTo(1));
                Assert.That(lostB, Is.EqualTo(0));
            }
            Simulation.SetRemoved(0, false);
        }

        [Test]
        public void CapturesTheCardsPatternByteForByte()
        {
            using (Card card = Card.Open())
            {
                int frames = 0;
                int wrong = 0;
                card.WriteRegister(ControlBlock(2, 0x04), 200);
                card.StartCapture(2, false, Width, Height, PixelType.Y8, frame =>
                {
                    byte[] bytes = frame.Buffer;
                    uint number = BitConverter.ToUInt32(bytes, 0);
                    bool ok = frame.Length == FrameBytes && frame.Channel == 2 && bytes[4] == 2;
                    for (int k = 8; ok && k < frame.Length; ++k)
                    {
                        ok = bytes[k] == (byte)((k + number) % 256);
                    }
                    Interlocked.Increment(ref frames);
                    if (!ok)
                    {
                        Interlocked.Increment(ref wrong);
                    }
                });
                Assert.That(card.IsCapturing(2), Is.True);
                Assert.That(Eventually(() => Volatile.Read(ref frames) >= 5), Is.True);
                card.StopCapture(2);
                Assert.That(card.IsCapturing(2), Is.False);
                Assert.That(wrong, Is.EqualTo(0));
                CaptureStatistics statistics = card.GetCaptureStatistics(2);
                Assert.That(statistics.FramesDelivered, Is.EqualTo((ulong)frames));
                Assert.That(statistics.FramesFailed, Is.EqualTo(0UL));
                Assert.That(card.LastHandlerException, Is.Null);
            }
        }

        [Test]
        public void PulledFramesAreTheCardsPatternAndAStopEndsThePull()
        {
            using (Card card = Card.Open())
            {
                card.WriteRegister(ControlBlock(3, 0x04), 200);
                card.StartPull(3, false, Width, Height, PixelType.Y8, 4);
                byte[] buffer = new byte[FrameBytes];
                ulong previous = 0;
                for (int pulled = 0; pulled < 8; ++pulled)
                {
                    PulledFrame frame;
                    Assert.That(card.Pull(3, buffer, 2000, out frame), Is.True);
                    uint number = BitConverter.ToUInt32(buffer, 0);
                    for (int k = 8; k < FrameBytes; ++k)
                    {
                        Assert.That(buffer[k], Is.EqualTo((byte)((k + number) % 256)));
                    }
                    Assert.That(frame.Channel, Is.EqualTo(3));
                    Assert.That(frame.PixelType, Is.EqualTo(PixelType.Y8));
                    Assert.That(frame.Bytes, Is.EqualTo((ulong)FrameBytes));
                    Assert.That(pulled == 0 || frame.Sequence > previous, Is.True);
                    previous = frame.Sequence;
                }
                card.StopCapture(3);
                // What waited is still handed out; then the stop ends the pulls.
                var stopped = Assert.Throws<KvPCIeException>(() =>
                {
                    PulledFrame rest;
                    while (card.Pull(3, buffer, 1000, out rest))
                    {
                    }
                });
                Assert.That(stopped.Status, Is.EqualTo(Status.Stopped));
            }
        }

        [Test]
        public void ARecordingGoesBelowTheChosenRoot()
        {
            string root = System.IO.Path.Combine(System.IO.Path.GetTempPath(),
                                                 "kvpcie-dotnet-" + Guid.NewGuid().ToString("N"));
            Card.SetRecordRoot(root);
            try
            {
                using (Card card = Card.Open())
                {
                    int frames = 0;
                    card.WriteRegister(ControlBlock(1, 0x04), 200);
                    card.StartCapture(1, false, Width, Height, PixelType.Y8,
                                      frame => Interlocked.Increment(ref frames));
                    card.StartRecord(1);
                    int recordedFrom = Volatile.Read(ref frames);
                    Assert.That(Eventually(() => Volatile.Read(ref frames) >= recordedFrom + 5), Is.True);
                    card.StopRecord(1);
                    card.StopCapture(1);
                    string[] files = System.IO.Directory.GetFiles(
                        System.IO.Path.Combine(root, "Capture2"), "*_Y8.raw",
                        System.IO.SearchOption.AllDirectories);
                    Assert.That(files.Length, Is.EqualTo(1));
                    long bytes = new System.IO.FileInfo(files[0]).Length;
                    Assert.That(bytes, Is.GreaterThan(0L));
                    Assert.That(bytes % FrameBytes, Is.EqualTo(0L));
                }
            }
            finally
            {
                Card.SetRecordRoot("");
                if (System.IO.Directory.Exists(root))
                {
                    System.IO.Directory.Delete(root, true);
                }
            }
        }

        [Test]
        public void InjectedFramesComeBackInTheLoopbackByteForByte()
        {
            var sent = new byte[FrameBytes];
            for (int i = 0; i < sent.Length; ++i)
            {
                sent[i] = (byte)(i * 3 + 1);
            }
            byte[] received = null;
            using (Card card = Card.Open())
            {
                card.WriteRegister(ControlBlock(1, 0x00), 1); // capture from inject channel 1
                card.WriteRegister(ControlBlock(1, 0x04), 100);
                card.StartCapture(1, false, Width, Height, PixelType.Y8, frame =>
                {
                    // A played frame, not the blank one before the first: copy it once.
                    if (frame.Buffer[10] == sent[10] && frame.Buffer[100] == sent[100] &&
                        Volatile.Read(ref received) == null)
                    {
                        var copy = new byte[frame.Length];
                        Buffer.BlockCopy(frame.Buffer, 0, copy, 0, frame.Length);
                        Volatile.Write(ref received, copy);
                    }
                });
                for (int i = 0; i < 10; ++i)
                {
                    Assert.That(card.Inject(1, 100, Width, Height, PixelType.Y8, sent), Is.True);
                }
                Assert.That(Eventually(() => Volatile.Read(ref received) != null), Is.True);
                card.StopCapture(1);
                InjectStatistics statistics = card.GetInjectStatistics(1);
                Assert.That(statistics.FramesQueued, Is.EqualTo(10UL));
                card.StopInject(1);
                Assert.That(card.IsInjecting(1), Is.False);
            }
            // The first pixel carries the frame's counter stamp; every other byte is the frame's.
            Assert.That(received.Length, Is.EqualTo(sent.Length));
            for (int k = 1; k < sent.Length; ++k)
            {
                Assert.That(received[k], Is.EqualTo(sent[k]), "byte " + k);
            }
        }

        [Test]
        public void StatusBlocksReachTheirHandler()
        {
            byte[] block = null;
            int channelSeen = -1;
            using (Card card = Card.Open())
            {
                card.StartCapture(3, false, Width, Height, PixelType.Y8, null);
                card.SetStatusHandler(3, (channel, data) =>
                {
                    channelSeen = channel;
                    Volatile.Write(ref block, data);
                });
                card.WriteRegister(ControlBlock(3, 0x400), 0xC0DE0042);
                card.WriteRegister(ControlBlock(3, 0x28), 4); // post 4 bytes
                Assert.That(Eventually(() => Volatile.Read(ref block) != null), Is.True);
                card.SetStatusHandler(3, null);
            }
            Assert.That(channelSeen, Is.EqualTo(3));
            Assert.That(block, Is.EqualTo(new byte[] { 0x42, 0x00, 0xDE, 0xC0 }));
        }

        [Test]
        public void BadArgumentsThrowWithTheLibrarysText()
        {
            using (Card card = Card.Open())
            {
                var error = Assert.Throws<KvPCIeException>(
                    () => card.StartCapture(7, false, Width, Height, PixelType.Y8, null));
                Assert.That(error.Status, Is.EqualTo(Status.BadArgument));
                Assert.That(error.Message, Is.StringContaining("outside 0 to 3"));
                // A format the library refuses is named, not the buffer it could not be given.
                error = Assert.Throws<KvPCIeException>(
                    () => card.StartCapture(0, false, Width, Height, (PixelType)9, null));
                Assert.That(error.Status, Is.EqualTo(Status.NoCard));
                Assert.That(error.Message, Is.StringContaining("pixel type 9"));
                error = Assert.Throws<KvPCIeException>(
                    () => card.StartCapture(0, false, 8000, 8000, PixelType.Pixel32, null));
                Assert.That(error.Message, Is.StringContaining("exceeds the 20 MiB card buffer"));
                error = Assert.Throws<KvPCIeException>(() => card.SendCommand(0, new byte[2000]));
                Assert.That(error.Status, Is.EqualTo(Status.BadArgument));
                error = Assert.Throws<KvPCIeException>(() => card.ReadData(0x80000000u, 4));
                Assert.That(error.Message, Is.Not.Empty);
            }
            var missing = Assert.Throws<KvPCIeException>(() => Card.Open("sim:xdma9"));
            Assert.That(missing.Status, Is.EqualTo(Status.NoCard));
            Assert.Throws<KvPCIeException>(() => Simulation.Configure("xdma:99"));
        }

        [Test]
        public void RegistersOfXdmaAndRiffaAndACommand()
        {
            using (Card card = Card.Open())
            {
                Assert.That(card.ReadRegister(0x1F0000), Is.EqualTo(0x53494D31u));
                card.WriteData(0x50000000u, new byte[] { 1, 2, 3, 4, 5, 6, 7, 8 });
                Assert.That(card.ReadData(0x50000000u, 8), Is.EqualTo(new byte[] { 1, 2, 3, 4, 5, 6, 7, 8 }));
                Assert.That(card.SendCommand(0, new byte[] { 0xA5, 0x5A }), Is.True);
                Assert.That(card.ReadRegister(ControlBlock(0, 0x2C)), Is.EqualTo(2u)); // its length
            }
            using (Card riffa = Card.OpenRiffa(0))
            {
                riffa.WriteRegister(0x2000, 0x1234);
                Assert.That(riffa.ReadRegister(0x2000), Is.EqualTo(0x1234u));
            }
        }

        [Test]
        public void GarbageCollectionsWhileFramesArriveLoseNothing()
        {
            int frames = 0;
            using (Card card = Card.Open())
            {
                card.WriteRegister(ControlBlock(0, 0x04), 200);
                // The handler and the frame buffer exist only through the card: the binding
                // keeps them for the library, the collector must neither free nor move them.
                card.StartCapture(0, false, Width, Height, PixelType.Y8,
                                  frame => Interlocked.Increment(ref frames));
                CollectWhileAllocating(20);
                Assert.That(Eventually(() => Volatile.Read(ref frames) >= 20), Is.True);
                card.StopCapture(0);
                CaptureStatistics statistics = card.GetCaptureStatistics(0);
                Assert.That(statistics.FramesFailed, Is.EqualTo(0UL));
                Assert.That(statistics.FramesDelivered, Is.EqualTo((ulong)frames));
                Assert.That(card.LastHandlerException, Is.Null);
            }
        }

        [Test]
        public void ACardLeftToTheFinalizerIsClosedAndItsChannelFreed()
        {
            OpenAndForget();
            // The channel the forgotten card captured on is free again.
            Assert.That(Eventually(() =>
            {
                GC.Collect();
                GC.WaitForPendingFinalizers();
                return ChannelIsFree(0);
            }), Is.True);
        }

        private static void OpenAndForget()
        {
            Card card = Card.Open();
            card.StartCapture(0, false, Width, Height, PixelType.Y8, frame => { });
        }

        // True when a new Card can capture on the channel.
        private static bool ChannelIsFree(int channel)
        {
            using (Card card = Card.Open())
            {
                try
                {
                    card.StartCapture(channel, false, Width, Height, PixelType.Y8, frame => { });
                }
                catch (KvPCIeException error)
                {
                    Assert.That(error.Status, Is.EqualTo(Status.InUse));
                    return false;
                }
                card.StopCapture(channel);
                return true;
            }
        }

        [Test]
        public void ACardDroppedWhileCapturingAThousandFramesASecondIsCollected()
        {
            var frames = new int[1];
            DropWhileCapturing(frames);
            Assert.That(Eventually(() =>
            {
                GC.Collect();
                GC.WaitForPendingFinalizers();
                return ChannelIsFree(1);
            }), Is.True);
            int seen = Volatile.Read(ref frames[0]);
            Thread.Sleep(50);
            Assert.That(Volatile.Read(ref frames[0]), Is.EqualTo(seen));
        }

        private static void DropWhileCapturing(int[] frames)
        {
            Card card = Card.Open();
            card.WriteRegister(ControlBlock(1, 0x04), 1000);
            card.StartCapture(1, false, Width, Height, PixelType.Y8,
                              frame => Interlocked.Increment(ref frames[0]));
            Assert.That(Eventually(() => Volatile.Read(ref frames[0]) >= 10), Is.True);
        }

        [Test]
        public void DisposeInsideItsOwnHandlerEndsItsHandlerCallsAndFreesTheChannel()
        {
            int frames = 0;
            int late = 0;
            int disposed = 0;
            Card card = Card.Open();
            card.WriteRegister(ControlBlock(0, 0x04), 1000);
            card.SetStatusHandler(0, (channel, block) => Interlocked.Increment(ref late));
            card.StartCapture(0, false, Width, Height, PixelType.Y8, frame =>
            {
                if (Volatile.Read(ref disposed) != 0)
                {
                    Interlocked.Increment(ref late);
                }
                else if (Interlocked.Increment(ref frames) == 3)
                {
                    card.Dispose();
                    Volatile.Write(ref disposed, 1);
                }
            });
            Assert.That(Eventually(() => Volatile.Read(ref disposed) != 0), Is.True);
            // Collections move what is no longer pinned; a frame written into a moved buffer,
            // or a handler called through a freed context, would crash here.
            CollectWhileAllocating(10);
            Assert.That(Volatile.Read(ref late), Is.EqualTo(0));
            Assert.That(Eventually(() => ChannelIsFree(0)), Is.True);
        }
    }
}
