// Lists the XDMA cards, opens the first, reads its identity and clocks and round-trips 16 MiB
// of card memory. Without hardware, run it on the simulated card: KVPCIE_SIM=1 ./card_info
#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

int main() {
    PCIeDataManager manager(XDMA_MM);

    char* paths[4] = {};
    const int count = manager.GetDevices(paths);
    std::printf("KvPCIeInjectSdk %s: %d XDMA card(s)\n", KvPCIeInjectSdkVersionString(), count);
    for (int i = 0; i < count; ++i) {
        std::printf("  [%d] %s\n", i, paths[i]);
    }
    const bool opened = count > 0 && manager.OpenCard(paths[0]);
    for (char* path : paths) {
        std::free(path);  // GetDevices hands the buffers to the caller
    }
    if (count == 0) {
        std::fprintf(stderr, "no XDMA card found; set KVPCIE_SIM=1 to use the simulated card\n");
        return 1;
    }
    if (!opened) {
        std::fprintf(stderr, "the card did not open\n");
        return 1;
    }

    std::printf("register 0x1f0000 (simulation identity): 0x%08x\n", manager.ReadReg(0x1F0000));
    std::printf("register 0x100028 (timing clock): %u Hz\n", manager.ReadReg(0x100028));
    std::printf("register 0x100030 (delay clock): %u Hz\n", manager.ReadReg(0x100030));

    // Larger than the driver's 8 MiB request, so the transfer goes in pieces.
    const unsigned size = 16 * 1024 * 1024 + 123;
    const unsigned cardAddress = 0x1000000;
    std::vector<unsigned char> written(size);
    std::vector<unsigned char> readBack(size);
    for (unsigned i = 0; i < size; ++i) {
        written[i] = static_cast<unsigned char>(i * 131 + i / 4096);
    }
    const bool roundTrip = manager.WriteData(cardAddress, size, written.data()) &&
                           manager.ReadData(cardAddress, size, readBack.data()) &&
                           readBack == written;
    std::printf("round trip of %u bytes: %s\n", size, roundTrip ? "ok" : "FAILED");

    manager.CloseCard();
    return roundTrip ? 0 : 1;
}
