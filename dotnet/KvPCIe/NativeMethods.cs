// The C interface (kvpcie.h) as P/Invoke declarations: one calling convention, plain types.
using System;
using System.Runtime.InteropServices;

namespace KvPCIe
{
    internal static class NativeMethods
    {
        // libKvPCIeInjectSdk.so on Linux, KvPCIeInjectSdk.dll on Windows.
        internal const string Library = "KvPCIeInjectSdk";

        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate void FrameCallback(IntPtr frame, IntPtr context);

        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate void StatusCallback(int channel, IntPtr data, UIntPtr bytes, IntPtr context);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr kvpcie_version();
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr kvpcie_last_error();
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern ulong kvpcie_frame_bytes(int pixelType, int width, int height);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr kvpcie_list_xdma();
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int kvpcie_list_count(IntPtr list);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr kvpcie_list_path(IntPtr list, int index);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern void kvpcie_list_free(IntPtr list);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int kvpcie_list_riffa([In, Out] RiffaDevice[] devices, int capacity,
                                                     out int count);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern CardHandle kvpcie_open(byte[] pathUtf8);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern CardHandle kvpcie_open_riffa(int index);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern void kvpcie_close(IntPtr card);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr kvpcie_card_path(CardHandle card);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int kvpcie_read_reg(CardHandle card, uint address, out uint value);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int kvpcie_write_reg(CardHandle card, uint address, uint value);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int kvpcie_read_data(CardHandle card, uint address, byte[] buffer,
                                                    uint bytes);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int kvpcie_write_data(CardHandle card, uint address, byte[] buffer,
                                                     uint bytes);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int kvpcie_start_capture(CardHandle card, int channel, int cardTiming,
                                                        int width, int height, int pixelType,
                                                        IntPtr frameBuffer, FrameCallback callback,
                                                        IntPtr context);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int kvpcie_stop_capture(CardHandle card, int channel);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int kvpcie_is_capturing(CardHandle card, int channel);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int kvpcie_start_record(CardHandle card, int channel);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int kvpcie_stop_record(CardHandle card, int channel);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int kvpcie_set_record_root(byte[] folderUtf8);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int kvpcie_start_pull(CardHandle card, int channel, int cardTiming,
                                                     int width, int height, int pixelType,
                                                     int depth);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int kvpcie_pull(CardHandle card, int channel, byte[] buffer,
                                               ulong capacity, ref PulledFrame frame,
                                               int timeoutMs);
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate void CardLostCallback(IntPtr path, IntPtr context);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int kvpcie_set_card_lost_callback(CardHandle card,
                                                                 CardLostCallback callback,
                                                                 IntPtr context);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int kvpcie_is_card_lost(CardHandle card);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int kvpcie_set_status_callback(CardHandle card, int channel,
                                                              StatusCallback callback,
                                                              IntPtr context);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int kvpcie_inject(CardHandle card, int channel, int frameRate,
                                                 int width, int height, int pixelType, byte[] frame);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int kvpcie_stop_inject(CardHandle card, int channel);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int kvpcie_is_injecting(CardHandle card, int channel);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int kvpcie_send_command(CardHandle card, int channel, byte[] bytes,
                                                       UIntPtr length);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int kvpcie_capture_statistics_get(CardHandle card, int channel,
                                                                 ref CaptureStatistics statistics);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int kvpcie_inject_statistics_get(CardHandle card, int channel,
                                                                ref InjectStatistics statistics);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int kvpcie_sim_configure(byte[] cardsUtf8);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int kvpcie_sim_peek_register(int card, uint address, out uint value);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int kvpcie_sim_set_removed(int card, int removed);

        // A string as the library takes it: UTF-8 with its terminating zero; null stays null.
        internal static byte[] Utf8(string text)
        {
            return text == null ? null : System.Text.Encoding.UTF8.GetBytes(text + "\0");
        }

        // The library's strings are UTF-8 and stay its own.
        internal static string Text(IntPtr utf8)
        {
            if (utf8 == IntPtr.Zero)
            {
                return null;
            }
            int length = 0;
            while (Marshal.ReadByte(utf8, length) != 0)
            {
                ++length;
            }
            var bytes = new byte[length];
            Marshal.Copy(utf8, bytes, 0, length);
            return System.Text.Encoding.UTF8.GetString(bytes);
        }
    }
}
