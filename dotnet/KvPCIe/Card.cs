// An open card for .NET hosts: capture, injection, commands, status blocks, registers and
// card memory, over the C interface.
using System;
using System.Runtime.InteropServices;
using System.Threading;

namespace KvPCIe
{
    /// <summary>Gets each captured frame, on the card's polling thread; it must return quickly.
    /// An exception it throws stays in .NET (see Card.LastHandlerException).</summary>
    public delegate void FrameHandler(Frame frame);

    /// <summary>Gets each status block the card posts for a channel, on the library's card
    /// thread.</summary>
    public delegate void StatusHandler(int channel, byte[] block);

    /// <summary>One open card (or RIFFA device). Dispose it to stop what it started and close
    /// it; the card closes with the last Card of its path in the process.</summary>
    public sealed class Card : IDisposable
    {
        /// <summary>Capture and inject channels of a card: 0 to 3.</summary>
        public const int Channels = 4;

        // The library calls these two, which live as long as the program: a callback that
        // held the Card itself (through a GC handle, which is a root) would keep a Card that the
        // program dropped from ever being finalized and closed. Their context names the
        // channel's state, held weakly (CallbackContexts): once the Card has gone, a late call
        // finds nothing and returns.
        private static readonly NativeMethods.FrameCallback FrameCallback = DeliverFrame;
        private static readonly NativeMethods.StatusCallback StatusCallback = DeliverStatus;
        private static readonly NativeMethods.CardLostCallback LostCallback = DeliverLost;

        // What the library's card-lost call finds: the Card, held weakly.
        private sealed class LostState
        {
            internal WeakReference Card;
            internal HandlerErrors Errors;
        }

        // What a handler threw: shared by the Card and its channels' states, so that a state
        // the library still names does not keep the Card itself alive.
        private sealed class HandlerErrors
        {
            internal Exception Last;
        }

        private sealed class ChannelState
        {
            internal HandlerErrors Errors;
            internal string CardPath;
            internal FrameHandler FrameHandler;
            internal Frame Frame;
            internal StatusHandler StatusHandler;
        }

        // The library's threads that call into the runtime are background threads: a program
        // whose Main returns with a card still capturing ends, and its cards are closed on the
        // way out (ProcessExit).
        [ThreadStatic] private static bool markedBackground_;
        // The path of the card whose frame handler runs on this thread, if any.
        [ThreadStatic] private static string inHandlerOf_;
        private static readonly object openLock_ = new object();
        private static readonly System.Collections.Generic.List<WeakReference> open_ =
            new System.Collections.Generic.List<WeakReference>();

        private readonly CardHandle handle_;
        private readonly ChannelState[] capture_ = new ChannelState[Channels];
        private readonly ChannelState[] status_ = new ChannelState[Channels];
        private readonly HandlerErrors errors_ = new HandlerErrors();
        private LostState lost_;  // kept as long as the Card: the library names it weakly

        static Card()
        {
            AppDomain.CurrentDomain.ProcessExit += (sender, arguments) => CloseOpenCards();
        }

        private Card(CardHandle handle)
        {
            handle_ = handle;
            lock (openLock_)
            {
                open_.RemoveAll(card => !card.IsAlive);
                open_.Add(new WeakReference(handle));
            }
            if (Path.Length > 0)
            {
                lost_ = new LostState { Card = new WeakReference(this), Errors = errors_ };
                IntPtr context = handle_.KeepContext("lost", lost_);
                KvPCIeException.ThrowIfFailed(
                    NativeMethods.kvpcie_set_card_lost_callback(handle_, LostCallback, context));
            }
        }

        /// <summary>Raised once when the card is found gone (removed, or its driver ended), on a
        /// thread of the library. From then on no frame moves and calls that reach the card throw
        /// with <see cref="Status.CardLost"/>; dispose the Card, open it again once it is back.
        /// A handler may dispose the Card.</summary>
        public event EventHandler CardLost;

        /// <summary>True once the card was found gone.</summary>
        public bool IsLost
        {
            get { return NativeMethods.kvpcie_is_card_lost(handle_) != 0; }
        }

        // On the card thread.
        private static void DeliverLost(IntPtr path, IntPtr context)
        {
            MarkThisThreadBackground();
            var state = CallbackContexts.Find(context) as LostState;
            var card = state == null ? null : state.Card.Target as Card;
            if (card == null)
            {
                return;
            }
            EventHandler handler = card.CardLost;
            if (handler == null)
            {
                return;
            }
            try
            {
                handler(card, EventArgs.Empty);
            }
            catch (Exception exception)
            {
                Volatile.Write(ref state.Errors.Last, exception);
            }
        }

        private static void CloseOpenCards()
        {
            WeakReference[] open;
            lock (openLock_)
            {
                open = open_.ToArray();
                open_.Clear();
            }
            foreach (WeakReference card in open)
            {
                var handle = card.Target as CardHandle;
                if (handle != null)
                {
                    handle.Dispose();
                }
            }
        }

        private static void MarkThisThreadBackground()
        {
            if (!markedBackground_)
            {
                markedBackground_ = true;
                Thread.CurrentThread.IsBackground = true;
            }
        }

        /// <summary>The library's version, "major.minor.patch".</summary>
        public static string Version
        {
            get { return NativeMethods.Text(NativeMethods.kvpcie_version()); }
        }

        /// <summary>Recordings of every card go below <paramref name="folder"/>
        /// (folder/Capture&lt;channel + 1&gt;/&lt;take&gt;/) from the next take on; "" brings back
        /// the default, "VideoRecord" beside the program.</summary>
        public static void SetRecordRoot(string folder)
        {
            KvPCIeException.ThrowIfFailed(NativeMethods.kvpcie_set_record_root(NativeMethods.Utf8(folder)));
        }

        /// <summary>Bytes of one frame of the format; 0 for a bad one.</summary>
        public static long FrameBytes(PixelType pixelType, int width, int height)
        {
            return (long)NativeMethods.kvpcie_frame_bytes((int)pixelType, width, height);
        }

        /// <summary>The XDMA card paths the library lists.</summary>
        public static string[] ListXdma()
        {
            IntPtr list = NativeMethods.kvpcie_list_xdma();
            if (list == IntPtr.Zero)
            {
                KvPCIeException.ThrowIfFailed((int)Status.Error);
            }
            try
            {
                var paths = new string[NativeMethods.kvpcie_list_count(list)];
                for (int i = 0; i < paths.Length; ++i)
                {
                    paths[i] = NativeMethods.Text(NativeMethods.kvpcie_list_path(list, i));
                }
                return paths;
            }
            finally
            {
                NativeMethods.kvpcie_list_free(list);
            }
        }

        /// <summary>The RIFFA devices the driver lists (five at most).</summary>
        public static RiffaDevice[] ListRiffa()
        {
            var devices = new RiffaDevice[5];
            for (int i = 0; i < devices.Length; ++i)
            {
                devices[i].Size = (uint)Marshal.SizeOf(typeof(RiffaDevice));
            }
            int count;
            KvPCIeException.ThrowIfFailed(NativeMethods.kvpcie_list_riffa(devices, devices.Length,
                                                                          out count));
            Array.Resize(ref devices, Math.Min(count, devices.Length));
            return devices;
        }

        /// <summary>Opens the XDMA card at <paramref name="path"/> (null: the first listed).</summary>
        public static Card Open(string path = null)
        {
            return Opened(NativeMethods.kvpcie_open(NativeMethods.Utf8(path)));
        }

        /// <summary>Opens RIFFA device <paramref name="index"/>: registers only.</summary>
        public static Card OpenRiffa(int index)
        {
            return Opened(NativeMethods.kvpcie_open_riffa(index));
        }

        private static Card Opened(CardHandle handle)
        {
            if (handle.IsInvalid)
            {
                string why = NativeMethods.Text(NativeMethods.kvpcie_last_error());
                handle.SetHandleAsInvalid();
                throw new KvPCIeException(Status.NoCard, why);
            }
            return new Card(handle);
        }

        /// <summary>The card's path ("" for a RIFFA device).</summary>
        public string Path
        {
            get { return NativeMethods.Text(NativeMethods.kvpcie_card_path(handle_)); }
        }

        /// <summary>The last exception a handler of this card threw, or null.</summary>
        public Exception LastHandlerException
        {
            get { return Volatile.Read(ref errors_.Last); }
        }

        /// <summary>XDMA: the user register at byte <paramref name="address"/>; RIFFA: a register request.</summary>
        public uint ReadRegister(uint address)
        {
            uint value;
            KvPCIeException.ThrowIfFailed(NativeMethods.kvpcie_read_reg(handle_, address, out value));
            return value;
        }

        /// <summary>Writes a register (XDMA or RIFFA).</summary>
        public void WriteRegister(uint address, uint value)
        {
            KvPCIeException.ThrowIfFailed(NativeMethods.kvpcie_write_reg(handle_, address, value));
        }

        /// <summary>Card memory by DMA.</summary>
        public byte[] ReadData(uint address, int bytes)
        {
            var data = new byte[bytes];
            KvPCIeException.ThrowIfFailed(
                NativeMethods.kvpcie_read_data(handle_, address, data, (uint)bytes));
            return data;
        }

        /// <summary>Writes card memory by DMA.</summary>
        public void WriteData(uint address, byte[] data)
        {
            if (data == null)
            {
                throw new ArgumentNullException("data");
            }
            KvPCIeException.ThrowIfFailed(
                NativeMethods.kvpcie_write_data(handle_, address, data, (uint)data.Length));
        }

        /// <summary>Starts capturing <paramref name="channel"/>; each frame goes to
        /// <paramref name="handler"/> (null: frames are only recorded) in a buffer of the
        /// channel's own, which the card fills by DMA and no copy is made of.</summary>
        public void StartCapture(int channel, bool cardTiming, int width, int height,
                                 PixelType pixelType, FrameHandler handler)
        {
            long bytes = FrameBytes(pixelType, width, height);
            if (channel < 0 || channel >= Channels || bytes <= 0 || bytes > int.MaxValue)
            {
                // The library says why in its own words.
                KvPCIeException.ThrowIfFailed(NativeMethods.kvpcie_start_capture(
                    handle_, channel, cardTiming ? 1 : 0, width, height, (int)pixelType,
                    IntPtr.Zero, null, IntPtr.Zero));
            }
            // A started channel stops first: its old buffer is let go only once the library no
            // longer uses it.
            KvPCIeException.ThrowIfFailed(NativeMethods.kvpcie_stop_capture(handle_, channel));
            handle_.Forget("buffer" + channel);
            var buffer = new byte[bytes];
            GCHandle pinned = handle_.Keep("buffer" + channel, buffer, GCHandleType.Pinned);
            var state = new ChannelState
            {
                Errors = errors_,
                CardPath = Path,
                FrameHandler = handler,
                Frame = new Frame(buffer) { Channel = channel, Width = width, Height = height,
                                            PixelType = pixelType },
            };
            capture_[channel] = state;
            IntPtr context = handle_.KeepContext("capture" + channel, state);
            KvPCIeException.ThrowIfFailed(NativeMethods.kvpcie_start_capture(
                handle_, channel, cardTiming ? 1 : 0, width, height, (int)pixelType,
                pinned.AddrOfPinnedObject(), handler == null ? null : FrameCallback, context));
        }

        // On the polling thread, per frame: the channel's one Frame is updated, nothing else.
        private static void DeliverFrame(IntPtr nativeFrame, IntPtr context)
        {
            MarkThisThreadBackground();
            var state = CallbackContexts.Find(context) as ChannelState;
            if (state == null || state.FrameHandler == null)
            {
                return;
            }
            Frame frame = state.Frame;
            frame.Length = (int)Marshal.ReadInt64(nativeFrame, 16);
            frame.ErrorFrame = Marshal.ReadInt32(nativeFrame, 36) != 0;
            inHandlerOf_ = state.CardPath;
            try
            {
                state.FrameHandler(frame);
            }
            catch (Exception exception)
            {
                // An exception must not cross into the library's thread.
                Volatile.Write(ref state.Errors.Last, exception);
            }
            finally
            {
                inHandlerOf_ = null;
            }
        }

        /// <summary>Stops the channel; no handler call of it runs once this returns (or, called
        /// from the channel's own handler, once the handler returns).</summary>
        public void StopCapture(int channel)
        {
            KvPCIeException.ThrowIfFailed(NativeMethods.kvpcie_stop_capture(handle_, channel));
            // Called from the channel's own handler, the library lets go of the buffer when the
            // handler returns; the handler holds the array meanwhile, so unpinning is safe.
            handle_.Forget("buffer" + channel);
        }

        /// <summary>True while this Card captures on the channel.</summary>
        public bool IsCapturing(int channel)
        {
            return NativeMethods.kvpcie_is_capturing(handle_, channel) != 0;
        }

        /// <summary>Starts capturing the channel for Pull: the library keeps its newest
        /// <paramref name="depth"/> (1 to 64) frames, and older ones that were not pulled in time
        /// are counted lost. No handler runs; StopCapture stops it.</summary>
        public void StartPull(int channel, bool cardTiming, int width, int height,
                              PixelType pixelType, int depth)
        {
            KvPCIeException.ThrowIfFailed(NativeMethods.kvpcie_start_pull(
                handle_, channel, cardTiming ? 1 : 0, width, height, (int)pixelType, depth));
        }

        /// <summary>Copies the oldest waiting frame of a pulled channel into
        /// <paramref name="buffer"/>, waiting up to <paramref name="timeoutMs"/> ms (-1: no
        /// limit). False when none came in time; a KvPCIeException with Status.Stopped once the
        /// channel stopped and nothing waits.</summary>
        public bool Pull(int channel, byte[] buffer, int timeoutMs, out PulledFrame frame)
        {
            frame = new PulledFrame();
            frame.Size = (uint)Marshal.SizeOf(typeof(PulledFrame));
            if (buffer == null)
            {
                throw new ArgumentNullException("buffer");
            }
            int status = NativeMethods.kvpcie_pull(handle_, channel, buffer, (ulong)buffer.Length,
                                                   ref frame, timeoutMs);
            if (status == (int)Status.Timeout)
            {
                return false;
            }
            KvPCIeException.ThrowIfFailed(status);
            return true;
        }

        /// <summary>Records the capturing channel into a take folder below the record root
        /// (SetRecordRoot; "VideoRecord" beside the program by default).</summary>
        public void StartRecord(int channel)
        {
            KvPCIeException.ThrowIfFailed(NativeMethods.kvpcie_start_record(handle_, channel));
        }

        /// <summary>Ends the recording; the frames on their way are written first.</summary>
        public void StopRecord(int channel)
        {
            KvPCIeException.ThrowIfFailed(NativeMethods.kvpcie_stop_record(handle_, channel));
        }

        /// <summary>Status blocks of the channel to <paramref name="handler"/>; null switches
        /// them off.</summary>
        public void SetStatusHandler(int channel, StatusHandler handler)
        {
            var state = new ChannelState { Errors = errors_, CardPath = Path,
                                           StatusHandler = handler };
            // Kept under a key of its own until the library has switched to it.
            IntPtr context = handle_.KeepContext("status" + channel + "+", state);
            int status = NativeMethods.kvpcie_set_status_callback(
                handle_, channel, handler == null ? null : StatusCallback, context);
            if (status != 0)
            {
                handle_.Forget("status" + channel + "+");
                KvPCIeException.ThrowIfFailed(status);
            }
            // The library switched on the card thread: the old state is no longer handed back.
            status_[channel] = state;
            handle_.Forget("status" + channel);
            handle_.RenameContext("status" + channel + "+", "status" + channel);
        }

        // On the card thread: the block is copied into an array of its own.
        private static void DeliverStatus(int channel, IntPtr data, UIntPtr bytes, IntPtr context)
        {
            MarkThisThreadBackground();
            var state = CallbackContexts.Find(context) as ChannelState;
            if (state == null || state.StatusHandler == null)
            {
                return;
            }
            var block = new byte[(int)bytes.ToUInt64()];
            Marshal.Copy(data, block, 0, block.Length);
            try
            {
                state.StatusHandler(channel, block);
            }
            catch (Exception exception)
            {
                Volatile.Write(ref state.Errors.Last, exception);
            }
        }

        /// <summary>Queues one frame (copied); false when 15 frames wait (offer it again later).
        /// The first frame of a run programs the channel with the format and rate.</summary>
        public bool Inject(int channel, int frameRate, int width, int height, PixelType pixelType,
                           byte[] frame)
        {
            int status = NativeMethods.kvpcie_inject(handle_, channel, frameRate, width, height,
                                                     (int)pixelType, frame);
            if (status == (int)Status.QueueFull)
            {
                return false;
            }
            KvPCIeException.ThrowIfFailed(status);
            return true;
        }

        /// <summary>Stops the channel's injection; frames still queued are dropped.</summary>
        public void StopInject(int channel)
        {
            KvPCIeException.ThrowIfFailed(NativeMethods.kvpcie_stop_inject(handle_, channel));
        }

        /// <summary>True while this Card injects on the channel.</summary>
        public bool IsInjecting(int channel)
        {
            return NativeMethods.kvpcie_is_injecting(handle_, channel) != 0;
        }

        /// <summary>Sends a control command (1 to 1,024 bytes); false when the card did not
        /// take it within 40 ms (it still goes out once the card is free).</summary>
        public bool SendCommand(int channel, byte[] command)
        {
            int status = NativeMethods.kvpcie_send_command(
                handle_, channel, command, new UIntPtr(command == null ? 0u : (uint)command.Length));
            if (status == (int)Status.Error)
            {
                return false;
            }
            KvPCIeException.ThrowIfFailed(status);
            return true;
        }

        /// <summary>The channel's capture counts; any thread, handlers too.</summary>
        public CaptureStatistics GetCaptureStatistics(int channel)
        {
            var statistics = new CaptureStatistics();
            statistics.Size = (uint)Marshal.SizeOf(typeof(CaptureStatistics));
            KvPCIeException.ThrowIfFailed(
                NativeMethods.kvpcie_capture_statistics_get(handle_, channel, ref statistics));
            return statistics;
        }

        /// <summary>The channel's inject and command counts; any thread, handlers too.</summary>
        public InjectStatistics GetInjectStatistics(int channel)
        {
            var statistics = new InjectStatistics();
            statistics.Size = (uint)Marshal.SizeOf(typeof(InjectStatistics));
            KvPCIeException.ThrowIfFailed(
                NativeMethods.kvpcie_inject_statistics_get(handle_, channel, ref statistics));
            return statistics;
        }

        /// <summary>Stops what this Card started and closes it. From inside one of its own frame
        /// handlers too: no handler of the Card is called once that one has returned.</summary>
        public void Dispose()
        {
            string running = inHandlerOf_;
            if (running != null && running != Path)
            {
                // Inside a handler of another card the library only begins the close; its
                // end, after which the buffers may be unpinned, is waited for elsewhere.
                foreach (ChannelState state in capture_)
                {
                    if (state != null)
                    {
                        state.FrameHandler = null;
                    }
                }
                ThreadPool.QueueUserWorkItem(unused => handle_.Dispose());
                return;
            }
            handle_.Dispose();
        }

    }

    /// <summary>The simulated card, for tests and examples: no hardware needed.</summary>
    public static class Simulation
    {
        /// <summary>As KVPCIE_SIM: "1", "xdma:N,riffa:M" or "" (none).</summary>
        public static void Configure(string cards)
        {
            KvPCIeException.ThrowIfFailed(NativeMethods.kvpcie_sim_configure(NativeMethods.Utf8(cards)));
        }

        /// <summary>A register of simulated card <paramref name="card"/> as the card holds it.</summary>
        public static uint PeekRegister(int card, uint address)
        {
            uint value;
            KvPCIeException.ThrowIfFailed(NativeMethods.kvpcie_sim_peek_register(card, address, out value));
            return value;
        }

        /// <summary>Simulated card <paramref name="card"/> drops off the bus, or comes back.</summary>
        public static void SetRemoved(int card, bool removed)
        {
            KvPCIeException.ThrowIfFailed(NativeMethods.kvpcie_sim_set_removed(card, removed ? 1 : 0));
        }
    }
}
