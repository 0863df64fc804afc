// The table of the daemon's texts against the daemon's sources, and what is made of a message.
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>

#include "common/daemon/daemon-events.h"
#include "common/files/whole-file.h"

namespace
{

namespace fs = std::filesystem;
using common::DaemonEventKind;
using common::DaemonText;
using testing::ElementsAre;
using testing::HasSubstr;

// ---- The texts of the sources ----

struct Source {
    std::string text;
    size_t position = 0;

    bool isAt(const char* what) const { return text.compare(position, std::string(what).size(), what) == 0; }
    void skipBlanks()
    {
        while (position < text.size() && std::isspace(static_cast<unsigned char>(text[position])) != 0) {
            ++position;
        }
    }
};

char unescaped(char c)
{
    return c == 'n' ? '\n' : c == 't' ? '\t' : c;
}

// The literal that begins here, and those that follow it with nothing but blanks between.
std::string takeLiterals(Source& source)
{
    std::string text;
    while (source.isAt("\"")) {
        for (++source.position; !source.isAt("\""); ++source.position) {
            const bool isEscape = source.isAt("\\");
            source.position += isEscape ? 1 : 0;
            text += isEscape ? unescaped(source.text[source.position]) : source.text[source.position];
        }
        ++source.position;
        source.skipBlanks();
    }
    return text;
}

// The format of each call of the log macros. A call whose format is no literal is a failure: it could not be
// looked up.
void collect(const fs::path& file, std::set<std::string>& formats)
{
    Source source{common::readWhole(file)};
    while ((source.position = source.text.find("FWLOG", source.position)) != std::string::npos) {
        const size_t open = source.text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ_", source.position);
        const std::string macro = source.text.substr(source.position, open - source.position);
        source.position = open;
        if (source.text[open] != '(') {
            continue; // a priority
        }
        ++source.position;
        source.skipBlanks();
        if (source.isAt("FWLOG_")) { // the priority comes first
            source.position = source.text.find(',', source.position) + 1;
            source.skipBlanks();
        }
        const std::string format = takeLiterals(source);
        EXPECT_NE(format, "") << file << ": " << macro << source.text.substr(open, 60);
        formats.insert(format);
    }
}

std::set<std::string> formatsOfTheSources()
{
    std::set<std::string> formats;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(DAEMON_SOURCES)) {
        const bool isMacros = entry.path().filename() == "fw-update-log.h"; // defines them
        if (!isMacros && (entry.path().extension() == ".cpp" || entry.path().extension() == ".h")) {
            collect(entry.path(), formats);
        }
    }
    return formats;
}

// A message that the daemon could write with this format.
std::string exampleOf(const std::string& format)
{
    std::string message;
    for (size_t i = 0; i < format.size(); ++i) {
        if (format[i] != '%') {
            message += format[i];
        } else if (format.compare(i, 4, "%llu") == 0) {
            message += "599";
            i += 3;
        } else {
            ++i;
            message += format[i] == 'd'   ? "-7"
                       : format[i] == 'm' ? "No space left on device"
                                          : "/a/Tuner.bin";
        }
    }
    return message;
}

TEST(DaemonEvents, EveryTextOfTheSourcesIsInTheTable)
{
    std::set<std::string> known;
    for (size_t i = 0; i < common::kDaemonTextCount; ++i) {
        known.insert(common::kDaemonTexts[i].format);
    }
    const std::set<std::string> formats = formatsOfTheSources();
    EXPECT_GT(formats.size(), 100U);
    for (const std::string& format : formats) {
        EXPECT_EQ(known.count(format), 1U)
            << "the daemon says \"" << format << "\": give it a row in common/daemon/daemon-events.cpp";
    }
}

TEST(DaemonEvents, TheTableHasNothingThatTheDaemonDoesNotSay)
{
    const std::set<std::string> formats = formatsOfTheSources();
    std::set<std::string> seen;
    for (size_t i = 0; i < common::kDaemonTextCount; ++i) {
        const DaemonText& text = common::kDaemonTexts[i];
        EXPECT_TRUE(seen.insert(text.format).second) << "twice: " << text.format;
        EXPECT_EQ(formats.count(text.format), text.isRefined ? 0U : 1U) << text.format;
    }
}

TEST(DaemonEvents, EveryTextIsReadAsWhatItIs)
{
    for (size_t i = 0; i < common::kDaemonTextCount; ++i) {
        const DaemonText& text = common::kDaemonTexts[i];
        EXPECT_EQ(common::readDaemonMessage(exampleOf(text.format)).kind, text.kind) << text.format;
    }
}

// ---- Values ----

std::vector<std::string> valuesOf(const std::string& message)
{
    return common::readDaemonMessage(message).values;
}

TEST(DaemonEvents, HaveTheValuesOfTheMessage)
{
    EXPECT_THAT(valuesOf("Tuner update time 8 sec"), ElementsAre("Tuner", "8"));
    EXPECT_THAT(valuesOf("Need Update [tuner][empTuner]"), ElementsAre("tuner", "empTuner"));
    EXPECT_THAT(valuesOf("Need Update [a][b][c]"), ElementsAre("a][b", "c"));
    EXPECT_THAT(valuesOf("Error: Tuner Firmware doUpdate Fail -1 (28:No space left on device)"),
                ElementsAre("Tuner", "-1", "28", "No space left on device"));
    EXPECT_THAT(valuesOf("PsMntCmd:[-o ro,loop /x/empTuner.img /x/emps/empTuner]"),
                ElementsAre("ro,loop", "/x/empTuner.img", "/x/emps/empTuner"));
    EXPECT_THAT(valuesOf("no update module item!\n"), ElementsAre());
    EXPECT_THAT(valuesOf("10"), ElementsAre("10"));
    EXPECT_THAT(valuesOf(" update timeout"), ElementsAre("")); // a firmware without a name is none the less
    EXPECT_EQ(common::readDaemonMessage("12").number(0), 12);
    EXPECT_EQ(common::readDaemonMessage("12").number(1), 0);
}

TEST(DaemonEvents, OfALogAreTheDaemonsOwnInThePlatformsLog)
{
    common::LogRecord record;
    record.message = "service finalize";
    record.tag = "FWUPDATE";
    record.buffer = common::LogBuffer::System;
    ASSERT_TRUE(common::readDaemonEvent(record));
    EXPECT_EQ(common::readDaemonEvent(record)->kind, DaemonEventKind::kEnding);
    record.buffer = common::LogBuffer::Trace;
    EXPECT_FALSE(common::readDaemonEvent(record));
    record.buffer = common::LogBuffer::System;
    record.tag = "OTHER";
    EXPECT_FALSE(common::readDaemonEvent(record));
}

// ---- States ----

TEST(DaemonStates, HaveANameEachAndALabelThatFitsIntoADrawing)
{
    std::set<std::string> names;
    std::set<std::string> labels;
    for (int state = 0; state < common::kDaemonStates; ++state) {
        names.insert(common::daemonStateName(state));
        labels.insert(common::daemonStateLabel(state));
        EXPECT_LE(std::string(common::daemonStateLabel(state)).size(), 18U) << state;
    }
    EXPECT_EQ(names.size(), static_cast<size_t>(common::kDaemonStates));
    EXPECT_EQ(labels.size(), static_cast<size_t>(common::kDaemonStates));
    for (const int none : {-1, common::kDaemonStates}) {
        EXPECT_EQ(common::daemonStateName(none), nullptr);
        EXPECT_EQ(common::daemonStateLabel(none), nullptr);
    }
}

TEST(DaemonStates, AreCalledSoInTheDocumentThatDrawsThem)
{
    const std::string document = common::readWhole(STATES_DOCUMENT);
    for (int state = 0; state < common::kDaemonStates; ++state) {
        const std::string number = std::to_string(state);
        EXPECT_THAT(document, HasSubstr("    s" + number + ": " + number + " " +
                                        common::daemonStateName(state) + "\n"));
    }
}

// Anybody may log: who reads along must not stand still for it. A copy for each length that a value might
// have takes this one half an hour.
TEST(DaemonStates, AreShownByTheHandlerOrByWhatComesBehind)
{
    const std::string counted = "tuner Firmware Expected Time Check Done";
    for (const auto& [message, state] : std::vector<std::pair<std::string, int>>{
             {"5", 5}, {counted, 5}, {"6", 5}, {"10", 7}, {"14", 13}, {"17", 17}, {"19", 19}}) {
        EXPECT_TRUE(common::showsState(message, state)) << message << ", " << state;
    }
    for (const auto& [message, state] : std::vector<std::pair<std::string, int>>{{"4", 5},
                                                                                 {counted, 6},
                                                                                 {"11", 10},
                                                                                 {"16", 10},
                                                                                 {"16", 15},
                                                                                 {"19", 17},
                                                                                 {"5 of 6", 5},
                                                                                 {"", 0}}) {
        EXPECT_FALSE(common::showsState(message, state)) << message << ", " << state;
    }
}

TEST(DaemonEvents, OfAMillionCharactersIsReadLikeAnother)
{
    const std::string name(1 << 20, 'n');
    EXPECT_EQ(common::readDaemonMessage(name).kind, DaemonEventKind::kDetail);
    const common::DaemonEvent event = common::readDaemonMessage(name + " update time 8 sec");
    EXPECT_EQ(event.kind, DaemonEventKind::kTurnWanted);
    EXPECT_THAT(event.values, ElementsAre(name, "8"));
}

} // namespace
