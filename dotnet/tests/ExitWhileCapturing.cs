// A program whose Main returns while its Card still captures at 1,000 frames a second, with a
// handler that brought the library's polling thread into the runtime: it must end, and its
// card must be closed on the way out.
using System;
using System.Threading;
using KvPCIe;

public static class ExitWhileCapturing
{
    public static int Main()
    {
        Simulation.Configure("xdma:1,riffa:0");
        Card card = Card.Open();
        card.WriteRegister(0x1F1000u + 0x04u, 1000);
        int frames = 0;
        card.StartCapture(0, false, 64, 32, PixelType.Y8, frame => Interlocked.Increment(ref frames));
        while (Volatile.Read(ref frames) < 50)
        {
            Thread.Sleep(10);
        }
        Console.WriteLine("returning from Main after " + Volatile.Read(ref frames) + " frames");
        return 0;
    }
}
