// What control libraries print, line by line and with the name of the one that does: it comes between the
// answers of fwctl, to the same terminal, and may steer neither.
#ifndef TOOLS_FWCTL_MODULES_LIBRARY_SPEECH_H
#define TOOLS_FWCTL_MODULES_LIBRARY_SPEECH_H

#include <functional>
#include <string>

namespace fwctl
{

class LibrarySpeech
{
public:
    // `line`: "NAME says: TEXT", not yet made visible.
    using Listener = std::function<void(const std::string& line)>;
    // An empty listener hears nothing.
    explicit LibrarySpeech(Listener onLine) : onLine_(std::move(onLine)) {}

    // Stands in what is printed, before what the library of that name prints.
    static std::string markOf(const std::string& name);

    // What has been printed. Of each library the first lines are passed on, and of a line its beginning.
    void take(const std::string& bytes);
    // The rest, and how much was not passed on.
    void finish();

private:
    void tell(const std::string& line);
    void say(const std::string& text);
    void change(const std::string& speaker);

    Listener onLine_;
    std::string speaker_; // empty: it is fwctl's own
    std::string rest_;    // of a line that has not come whole
    unsigned long lines_ = 0;
};

} // namespace fwctl

#endif
