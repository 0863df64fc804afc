#include "tools/fwmod/check/findings.h"

#include <algorithm>
#include <stdexcept>

namespace fwmod
{

const std::vector<FindingChapter>& findingChapters()
{
    static const std::vector<FindingChapter> chapters = {
        {1, "Loading"},
        {2, "Questions and buffers"},
        {3, "Manners in a shared process"},
        {4, "The update"},
        {5, "Power cuts"},
    };
    return chapters;
}

const std::vector<FindingKind>& findingKinds()
{
    constexpr Severity kError = Severity::Error;
    constexpr Severity kWarning = Severity::Warning;
    static const std::vector<FindingKind> kinds = {
        // ---- Loading ----
        {101, kError, "not a shared library for this machine",
         "The file is no ELF shared object, is damaged, or is built for another processor.",
         "Link with -shared (CMake: add_library(NAME MODULE ...)). To check a library for a set with another "
         "processor, build it for the PC as well."},
        {102, kError, "the file is not named NAME.so",
         "The daemon opens files with the extension .so only, and the name before it is the module's name.",
         "Name the file after the module, without \"lib\" in front if the module has none (CMake: PREFIX "
         "\"\")."},
        {103, kError, "a required entry point is missing",
         "The daemon does not load a library without setContext, getEMPID, getActiveVersion, checkVersion "
         "and "
         "doUpdate. Often the function is static, or the library is linked with hidden visibility and the "
         "function was defined without including tarnwick/control.h.",
         "Define the function, include tarnwick/control.h where it is defined, and look at \"fwmod "
         "inspect\"."},
        {104, kError, "an entry point is exported under its C++ name only",
         "Defined in C++ with another signature than the header's, or without the header, the function gets "
         "a "
         "mangled name that the daemon does not look for. An optional one is silently not used.",
         "Include tarnwick/control.h in the file that defines it and use exactly its signature."},
        {105, kError, "an entry point has the address null",
         "The symbol exists but leads nowhere: an alias, a linker script or a weak definition that was not "
         "filled in. The daemon takes a required one as missing.",
         "Define the function in the library itself."},
        {106, kError, "symbols stay undefined",
         "The daemon binds every symbol when it loads the library. One that no library provides makes the "
         "whole library useless, even if it would never be called.",
         "Link the library that has the symbol, and link with -Wl,-z,defs so that the linker tells."},
        {107, kError, "the library cannot be loaded",
         "The dynamic loader refuses it; its message says why. Often a library that it needs is not "
         "installed "
         "on the set.",
         "Link what is missing statically, or install it next to the firmware."},

        // ---- Questions and buffers ----
        {201, kError, "a question is answered with a failure",
         "setContext, getEMPID, getActiveVersion, checkVersion or getExpectedTime returned another value "
         "than "
         "0 although the hardware is there. The daemon takes the module as not updatable.",
         "Return 0 when the answer was written. If the hardware was not found, see that --hardware has it."},
        {202, kError, "the identifier breaks the rules",
         "The identifier names the package and the image. It must consist of [0-9A-Za-z] and contain \"emp\" "
         "in "
         "lower case, with something left when that is taken away; a module with another one is not updated.",
         "Return an identifier such as \"empTuner\"."},
        {203, kError, "a text is not terminated",
         "The buffer has no zero byte when the function returns, so the daemon reads what lies behind it. "
         "Usual "
         "causes are strncpy with the exact size, and memcpy without the terminator.",
         "Write at most 127 characters and a zero byte; snprintf(out, TARNWICK_CONTROL_TEXT_SIZE, ...) "
         "does."},
        {204, kError, "memory outside of a buffer is touched",
         "The function wrote or read past the end (or before the beginning) of a buffer that the daemon "
         "passed. "
         "On a set this corrupts the daemon's stack.",
         "Text buffers have 128 bytes (TARNWICK_CONTROL_TEXT_SIZE), a result is one int, and the data of "
         "doUpdate_decryption ends after `length` bytes without a terminator."},
        {205, kError, "an answer is not written",
         "The function returned 0 but left the variable or buffer as it was, so the daemon works with a "
         "random "
         "value.",
         "Write the answer on every path that returns 0."},
        {206, kError, "the active version is empty",
         "Nobody can tell then whether an update is needed or has worked.",
         "Report the version of factory-new hardware as a text too, such as \"0.0\"."},
        {207, kError, "the installed version is taken as newer than itself",
         "checkVersion, asked about the version that getActiveVersion gives, says \"newer\". The set would "
         "update the module at every standby, for ever.",
         "Compare with the version that is read from the hardware, and write TARNWICK_CONTROL_VERDICT_SAME "
         "when "
         "they are equal."},
        {208, kWarning, "a verdict other than -1, 0 or 1",
         "A value above 1 does not make the module pending, although a running update takes it as "
         "\"install\".",
         "Write TARNWICK_CONTROL_VERDICT_NEWER, _SAME or _OLDER."},
        {209, kWarning, "nonsense is accepted as a newer version",
         "checkVersion said \"newer\" about a text that is no version (empty, or letters and signs). A "
         "damaged "
         "information file would be installed.",
         "Return a failure for a version that cannot be understood."},
        {210, kError, "the same question gets different answers",
         "The identifier or the version changed between two calls without an update, or on another thread "
         "than "
         "the loading one. Often the text is thread-local or read from memory that was not initialised.",
         "Keep no answer per thread; read the version from the hardware each time."},
        {211, kError, "the offered version is not taken as newer",
         "checkVersion does not say \"newer\" about the version of the given image, so the daemon would not "
         "install it.",
         "Give hardware with an older version (--hardware), or compare versions by their numbers: 1.10 is "
         "newer than 1.9."},

        // ---- Manners in a shared process ----
        {301, kError, "a call does not return",
         "The function was still running when its time was over. It blocks the daemon, and with it every "
         "other "
         "module. Usual causes are a wait for hardware without a time limit and a mutex that is locked "
         "twice.",
         "Give every wait a limit and return a failure, with errno ETIMEDOUT."},
        {302, kError, "a call crashes",
         "The process was ended by a signal in the library. The daemon ends with it, and no module is "
         "updated.",
         "Look at the signal and the call in the report; build the library with -fsanitize=address and run "
         "the "
         "check again. Null is a valid value of setContext's context."},
        {303, kError, "an exception leaves a function",
         "The daemon calls through C linkage and does not expect one: it would end.",
         "Catch everything in each entry point and return a failure."},
        {304, kError, "a call ends the process",
         "exit, _exit, abort or quick_exit was called. The daemon ends with it, in the middle of its work.",
         "Return a failure instead."},
        {305, kError, "the working directory is changed", "It belongs to the whole process.",
         "Use absolute paths, or openat."},
        {306, kError, "signal handling is changed",
         "Handlers and masks belong to the daemon, which ends by signals in an orderly way.",
         "Install no handlers; block signals in own threads only, while they run."},
        {307, kError, "the locale is changed",
         "With another locale the daemon writes and reads numbers in another way.",
         "Use newlocale and the _l functions, or functions that know no locale."},
        {308, kError, "the environment is changed",
         "It belongs to the whole process, and changing it while other threads read it is a data race.",
         "Pass settings as arguments; give a child process an environment of its own."},
        {309, kError, "a thread is left running",
         "It runs on while the daemon unloads, ends or updates other modules.",
         "Join every thread before the call returns that started it."},
        {310, kError, "file descriptors are left open",
         "The daemon asks the same questions at every check; a descriptor lost each time uses up the "
         "process's "
         "limit in the end.",
         "Close what was opened on every path out of the function."},
        {311, kError, "a child process is left running",
         "It goes on after the call; the daemon, which did not start it, does not reap it.",
         "Wait for every child process before the call returns that started it."},
        {312, kError, "the file mode mask is changed", "It belongs to the whole process.",
         "Set the mode of a file with fchmod after making it."},
        {313, kError, "descriptors that are not the library's own are closed",
         "The daemon loses its log or its bus, and the next file that is opened takes their number and gets "
         "what was meant for them. Usual causes are a descriptor that is closed twice, and a loop that "
         "closes "
         "everything.",
         "Close what the library itself opened, once; in a child process use closefrom between fork and "
         "exec."},

        // ---- The update ----
        {401, kError, "a sound image is refused",
         "doUpdate returned a failure for the given image with its right checksum.",
         "Look at the result and errno in the report. The checksum is the system's own CRC: \"fwmod crc\" "
         "prints it."},
        {402, kError, "success is reported although the image is not written",
         "doUpdate returned 0, and either no write to hardware had been seen or the writing went on. The "
         "daemon reports success, gives up the power lock and may reboot the set.",
         "Return when the hardware holds the image, verified; leave no work to the background."},
        {403, kError, "the update ends too fast",
         "An update that ends within a few milliseconds may be counted as timed out although it succeeded.",
         "Let every doUpdate that succeeds take 100 ms or more."},
        {404, kWarning, "no progress is told",
         "getUpdateProgress is missing, fails, or gives the same value during the whole update. The viewer "
         "looks at a "
         "bar that does not move.",
         "Count the blocks that were written and give done * 100 / total."},
        {405, kWarning, "the progress falls", "A bar that runs backwards frightens the viewer.",
         "Compute the progress over the whole update, verification included."},
        {406, kError, "the progress is over 100",
         "It is published as it is, and what shows it is not made for it.",
         "Limit it to 100; mind the order of multiplication and division."},
        {407, kError, "the progress waits for the write",
         "getUpdateProgress did not return at once while doUpdate ran, usually because both take the same "
         "mutex.",
         "Keep the progress in an atomic variable."},
        {408, kError, "the expected time is too short",
         "The update took longer than the expected time in the information file, and the daemon waits only "
         "two "
         "seconds more. Then it reports a time-out, gives up the power lock and loses the result.",
         "Write the proposed time into the information file: fwmod info --expected-time."},
        {409, kError, "the version after the update is not the offered one",
         "The daemon would find the same image newer at the next boot, and install it for ever.",
         "Put the same version into the image, the information file and the hardware, and read it from the "
         "hardware."},
        {410, kError, "a wrong checksum is accepted",
         "doUpdate wrote an image whose checksum was not the one given.",
         "Compute the checksum over the whole file before the first write, and fail with errno EBADMSG."},
        {411, kError, "an image that is not there is accepted",
         "doUpdate returned 0 for a path where no file is.", "Check that the file could be opened and read."},
        {412, kWarning, "a failure says nothing about its cause",
         "doUpdate failed with errno 0; the daemon logs errno after a failed update, and that is all a "
         "technician has.",
         "Set errno before returning a failure."},
        {413, kError, "the old firmware is gone after a refused image",
         "The update was refused, and the hardware no longer reports the version that it had.",
         "Check the image before the first write, and write where the running firmware does not lie."},
        {414, kError, "impossible data in memory is accepted or not survived",
         "doUpdate_decryption returned 0 for data without content (a negative or zero length) or for noise.",
         "Check length and content before anything else: it is input from a USB stick."},
        {415, kError, "the expected time of an encrypted image is useless",
         "getExpectedTime gives a value below 1, so the daemon's power lock covers nothing.",
         "Write the duration of an update in seconds, with a margin."},
        {416, kWarning, "allUpdateDone is slow",
         "It took longer than a second; the daemon's watchdog waits meanwhile.",
         "Leave work to the next call of another function."},

        // ---- Power cuts ----
        {501, kError, "after a power cut the hardware does not answer",
         "The power was cut at one write of the update. After it the library does not load, crashes, hangs, "
         "or gives no version, or one that is neither the old nor the new one.",
         "Write the new firmware beside the old one and switch over with one last write; take what a cut-off "
         "write left as not there."},
        {502, kError, "after a power cut the update does not work any more",
         "After a cut at one write the next doUpdate failed, or did not bring the offered version.",
         "Let every update start over from whatever it finds; a left-over lock or temporary file must not "
         "stop it."},
        {503, kError, "after a power cut the new version is told too early",
         "After a cut in the middle of the update the hardware claims the offered version, so nobody will "
         "write the rest.",
         "Write the version last, after the content was flushed and verified."},
    };
    return kinds;
}

const FindingKind& findingKind(unsigned int number)
{
    const std::vector<FindingKind>& kinds = findingKinds();
    const auto found = std::find_if(kinds.begin(), kinds.end(),
                                    [number](const FindingKind& kind) { return kind.number == number; });
    if (found == kinds.end())
        throw std::logic_error("there is no finding " + std::to_string(number));
    return *found;
}

std::string findingId(unsigned int number)
{
    return "F" + std::to_string(number);
}

std::string findingsDocument()
{
    std::string text = "# What fwmod check finds\n\n"
                       "Made from the checker's own table with `fwmod check --list-findings`; do not edit.\n"
                       "An error keeps a module from being updated or does harm; a warning does not.\n";
    unsigned int hundred = 0;
    for (const FindingKind& kind : findingKinds()) {
        if (kind.number / 100 != hundred) {
            hundred = kind.number / 100;
            text += std::string("\n## ") + findingChapters().at(hundred - 1).title + "\n";
        }
        text += "\n### " + findingId(kind.number) + ": " + kind.title + "\n\n";
        text += kind.severity == Severity::Error ? "*Error.* " : "*Warning.* ";
        text += std::string(kind.cause) + "\n\n**Cure.** " + kind.cure + "\n";
    }
    return text;
}
} // namespace fwmod
