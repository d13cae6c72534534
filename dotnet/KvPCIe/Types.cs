// The records and codes of the C interface, laid out as kvpcie.h lays them out.
using System;
using System.Runtime.InteropServices;

namespace KvPCIe
{
    /// <summary>Pixel layouts of a frame.</summary>
    public enum PixelType
    {
        /// <summary>Two bytes per pixel, U Y V Y.</summary>
        Uyvy422 = 0,
        /// <summary>One byte per pixel.</summary>
        Y8 = 1,
        /// <summary>Two bytes per pixel.</summary>
        Y16 = 2,
        /// <summary>Three bytes per pixel: 16-bit and 8-bit samples.</summary>
        Y16Y8 = 3,
        /// <summary>Three bytes per pixel, B G R.</summary>
        Bgr24 = 4,
        /// <summary>Four bytes per pixel (capture only).</summary>
        Pixel32 = 5,
    }

    /// <summary>What a call of the library came to (kvpcie_status).</summary>
    public enum Status
    {
        /// <summary>The call did what it was asked.</summary>
        Ok = 0,
        /// <summary>The call failed; the message says why.</summary>
        Error = -1,
        /// <summary>A null argument, a channel outside 0 to 3, or another bad argument.</summary>
        BadArgument = -2,
        /// <summary>No card, or it would not open, or the format was refused.</summary>
        NoCard = -3,
        /// <summary>Injection: 15 frames wait; the frame was not taken.</summary>
        QueueFull = -4,
        /// <summary>Another Card captures or injects on this channel.</summary>
        InUse = -5,
        /// <summary>An XDMA operation on a RIFFA device, or the reverse.</summary>
        WrongKind = -6,
        /// <summary>The card was found gone: dispose the Card, open it again once it is back.</summary>
        CardLost = -7,
        /// <summary>Pull: no frame came within the time-out.</summary>
        Timeout = -8,
        /// <summary>Pull: the channel stopped and no frame of it waits.</summary>
        Stopped = -9,
    }

    /// <summary>What Card.Pull copied into the buffer.</summary>
    [StructLayout(LayoutKind.Sequential)]
    public struct PulledFrame
    {
        internal uint Size;
        /// <summary>The channel, 0 to 3.</summary>
        public int Channel;
        /// <summary>Bytes copied: one frame.</summary>
        public ulong Bytes;
        /// <summary>Pixels per line.</summary>
        public int Width;
        /// <summary>Lines.</summary>
        public int Height;
        /// <summary>The frame's pixel layout.</summary>
        public PixelType PixelType;
        internal int ErrorFlag;
        /// <summary>0 for the first frame since StartPull; a gap: frames lost.</summary>
        public ulong Sequence;
        /// <summary>When the library got it, ns on the host's steady clock.</summary>
        public long ReceivedNs;
        /// <summary>Frames that found the queue full since the start.</summary>
        public ulong FramesLost;

        /// <summary>True when the card marked the frame as an error frame.</summary>
        public bool ErrorFrame
        {
            get { return ErrorFlag != 0; }
        }
    }

    /// <summary>A call that failed: its status and the library's own words for why.</summary>
    public class KvPCIeException : Exception
    {
        /// <summary>A failure with its status and text.</summary>
        public KvPCIeException(Status status, string message) : base(message)
        {
            Status = status;
        }

        /// <summary>What the call came to.</summary>
        public Status Status { get; private set; }

        internal static void ThrowIfFailed(int status)
        {
            if (status != 0)
            {
                throw new KvPCIeException((Status)status,
                                          NativeMethods.Text(NativeMethods.kvpcie_last_error()));
            }
        }
    }

    /// <summary>One RIFFA device of the listing.</summary>
    [StructLayout(LayoutKind.Sequential, CharSet = CharSet.Ansi)]
    public struct RiffaDevice
    {
        internal uint Size;
        /// <summary>The index that Card.OpenRiffa takes.</summary>
        public int Id;
        /// <summary>RIFFA channels of the device.</summary>
        public int Channels;
        /// <summary>The device's name.</summary>
        [MarshalAs(UnmanagedType.ByValTStr, SizeConst = 16)] public string Name;
        /// <summary>PCI vendor.</summary>
        public int VendorId;
        /// <summary>PCI device.</summary>
        public int DeviceId;
    }

    // CaptureStatistics and InjectStatistics are made by the build from the library's table
    // (dotnet/generate-records.py writes Statistics.g.cs).

    // kvpcie_frame as the library passes it to a frame callback.
    [StructLayout(LayoutKind.Sequential)]
    internal struct NativeFrame
    {
        internal uint Size;
        internal int Channel;
        internal IntPtr Data;
        internal ulong Bytes;
        internal int Width;
        internal int Height;
        internal int PixelType;
        internal int ErrorFrame;
    }

    /// <summary>One captured frame, valid during the handler only: <c>Buffer</c> is the card's
    /// frame buffer of the channel itself (pinned, filled by the card's DMA, no copy).</summary>
    public sealed class Frame
    {
        internal Frame(byte[] buffer)
        {
            Buffer = buffer;
        }

        /// <summary>The channel, 0 to 3.</summary>
        public int Channel { get; internal set; }
        /// <summary>The channel's frame buffer, which the card filled.</summary>
        public byte[] Buffer { get; private set; }
        /// <summary>Bytes of the frame in Buffer.</summary>
        public int Length { get; internal set; }
        /// <summary>Pixels per line.</summary>
        public int Width { get; internal set; }
        /// <summary>Lines.</summary>
        public int Height { get; internal set; }
        /// <summary>The frame's pixel layout.</summary>
        public PixelType PixelType { get; internal set; }
        /// <summary>True when the card marked it as an error frame.</summary>
        public bool ErrorFrame { get; internal set; }
    }

    /// <summary>The handle of an open card, closed once whatever the program does. It also
    /// holds what the library may write into or hand back while the card is open (pinned frame
    /// buffers, the callbacks' contexts): they are let go only once the close has returned,
    /// when no callback runs or will run, even when the handle is closed by the finalizer.
    /// </summary>
    public sealed class CardHandle : SafeHandle
    {
        private readonly object keptLock_ = new object();
        private readonly System.Collections.Generic.Dictionary<string, GCHandle> kept_ =
            new System.Collections.Generic.Dictionary<string, GCHandle>();
        private readonly System.Collections.Generic.Dictionary<string, IntPtr> contexts_ =
            new System.Collections.Generic.Dictionary<string, IntPtr>();

        private CardHandle() : base(IntPtr.Zero, true)
        {
        }

        /// <summary>True for a handle that holds no card.</summary>
        public override bool IsInvalid
        {
            get { return handle == IntPtr.Zero; }
        }

        // Keeps a handle of `type` to `target` under `key`, letting go of what was kept there.
        internal GCHandle Keep(string key, object target, GCHandleType type)
        {
            GCHandle kept = GCHandle.Alloc(target, type);
            lock (keptLock_)
            {
                Forget(key);
                kept_[key] = kept;
            }
            return kept;
        }

        // A context for the library that names `target` (held weakly) under `key`.
        internal IntPtr KeepContext(string key, object target)
        {
            IntPtr context = CallbackContexts.Add(target);
            lock (keptLock_)
            {
                Forget(key);
                contexts_[key] = context;
            }
            return context;
        }

        // Lets go of what is kept under `key`: only once the library no longer uses it.
        internal void Forget(string key)
        {
            lock (keptLock_)
            {
                GCHandle kept;
                if (kept_.TryGetValue(key, out kept))
                {
                    kept.Free();
                    kept_.Remove(key);
                }
                IntPtr context;
                if (contexts_.TryGetValue(key, out context))
                {
                    CallbackContexts.Remove(context);
                    contexts_.Remove(key);
                }
            }
        }

        // Moves the context kept under `from` to `to`.
        internal void RenameContext(string from, string to)
        {
            lock (keptLock_)
            {
                IntPtr context;
                if (contexts_.TryGetValue(from, out context))
                {
                    contexts_.Remove(from);
                    contexts_[to] = context;
                }
            }
        }

        /// <summary>Closes the card, then lets go of what the library used.</summary>
        protected override bool ReleaseHandle()
        {
            // Inside one of the card's own frame handlers the library stops its channels at
            // once and calls no handler of it again once the running one has returned, so
            // the buffers may be unpinned here too: nothing writes into them any more.
            NativeMethods.kvpcie_close(handle);
            lock (keptLock_)
            {
                foreach (GCHandle kept in kept_.Values)
                {
                    kept.Free();
                }
                kept_.Clear();
                foreach (IntPtr context in contexts_.Values)
                {
                    CallbackContexts.Remove(context);
                }
                contexts_.Clear();
            }
            return true;
        }
    }
}
