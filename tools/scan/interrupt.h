// Stopping a scan: by a signal, or because nobody reads the report any more.
#ifndef TARN_TOOLS_SCAN_INTERRUPT_H
#define TARN_TOOLS_SCAN_INTERRUPT_H

#include <atomic>

class CInterrupt {
  public:
    // Takes over SIGINT, SIGTERM and SIGHUP, and ignores SIGPIPE and SIGXFSZ (a full pipe or file is then an error of
    // one write). Until Arm, and from the second signal on, a signal ends the program at once with status 130.
    static bool Install();

    // From here on the first signal asks for an orderly end.
    static void Arm();

    // Asks for an orderly end from inside the program.
    static void RequestStop();

    // Wakes WaitForEvent; safe in signal handlers.
    static void Wake();

    // Waits for a wake-up or the end of the time, whichever is first.
    static void WaitForEvent(int iMilliseconds);

    static bool BySignal() { return s_nSignals.load() != 0; }
    static const std::atomic<bool> &StopFlag() { return s_bStop; }

  private:
    static void OnSignal(int iSignal);

    static std::atomic<int> s_nSignals;
    static std::atomic<bool> s_bArmed;
    static std::atomic<bool> s_bStop;
    static int s_fdEvent;
};

#endif
