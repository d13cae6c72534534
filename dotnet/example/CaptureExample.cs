// Captures one second of channel 0 from the first card and prints what arrived. Without
// hardware: KVPCIE_SIM=1 mono CaptureExample.exe
using System;
using System.Threading;
using KvPCIe;

public static class CaptureExample
{
    public static int Main()
    {
        Console.WriteLine("KvPCIeInjectSdk " + Card.Version + ": " + string.Join(", ", Card.ListXdma()));
        try
        {
            using (Card card = Card.Open())
            {
                long lastSum = 0;
                card.StartCapture(0, true, 640, 480, PixelType.Uyvy422, frame =>
                {
                    // Runs on the card's polling thread: keep it short.
                    Interlocked.Exchange(ref lastSum, frame.Buffer[0] + frame.Buffer[frame.Length - 1]);
                });
                Thread.Sleep(1000);
                card.StopCapture(0);
                CaptureStatistics statistics = card.GetCaptureStatistics(0);
                Console.WriteLine(statistics.FramesDelivered + " frames captured, " +
                                  statistics.FramesFailed + " lost (last frame's end bytes: " +
                                  Interlocked.Read(ref lastSum) + ")");
                return statistics.FramesDelivered > 0 ? 0 : 1;
            }
        }
        catch (KvPCIeException error)
        {
            Console.Error.WriteLine("no capture: " + error.Message + " (set KVPCIE_SIM=1 for the simulated card)");
            return 1;
        }
    }
}
