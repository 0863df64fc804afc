// Finding and binding a control library, the module's names, and the calls into the library.
#include <algorithm>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <functional>
#include <link.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <type_traits>
#include <vector>

#include "common/files/whole-file.h"
#include "src/src/fw-update-symbol.h"
#include "tests/support/set-test.h"

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{

class FWUpdateSymbolBinding : public SetTest
{
protected:
    // The text of the loader, which stands at the end of a message.
    static std::string missingSymbol(const std::string& libraryPath, const std::string& entry)
    {
        return "Error: dlsym error: " + libraryPath + ": undefined symbol: " + entry + "\n";
    }
};

// Within the daemon a caller is a caller; the number is for the library's side of the border.
static_assert(std::is_same_v<decltype(SYMFunction::setContext),
                             std::function<int(const char*, FWUpdateCallerTypes, char*)>>);

// ---- A new module ----

TEST_F(FWUpdateSymbolBinding, ANewModuleHasItsNameAndNothingElse)
{
    const FWUpdateSymbol module("tuner");
    EXPECT_EQ(module.getLibName(), "tuner");
    EXPECT_EQ(module.getEMPName(), "");
    EXPECT_EQ(module.getFirmwareName(), "");
    EXPECT_EQ(module.empImagePath, "");
    EXPECT_FALSE(module.usrControl);
    EXPECT_FALSE(module.isEMP);
    EXPECT_FALSE(module.getNeedUpdate());
    EXPECT_EQ(module.getExpectedUpdateTime(), 0u);
    EXPECT_EQ(module.getSymbolType(), 0u);
    EXPECT_EQ(module.getUpdateType(), UPDATE_TYPE_EMP);
    EXPECT_EQ(module.handle, nullptr);
}

TEST_F(FWUpdateSymbolBinding, ANewModuleHasNoEntryPoints)
{
    const FWUpdateSymbol module("tuner");
    EXPECT_FALSE(module.functions.setContext);
    EXPECT_FALSE(module.functions.getEMPID);
    EXPECT_FALSE(module.functions.getActiveVersion);
    EXPECT_FALSE(module.functions.checkVersion);
    EXPECT_FALSE(module.functions.doUpdate);
    EXPECT_FALSE(module.functions.allUpdateDone);
    EXPECT_FALSE(module.functions.doUpdate_decryption);
    EXPECT_FALSE(module.functions.getExpectedTime);
    EXPECT_FALSE(module.functions.getUpdateProgress);
}

TEST_F(FWUpdateSymbolBinding, TheUpdateTypeCanBeSet)
{
    FWUpdateSymbol module("tuner");
    module.setUpdateType(UPDATE_TYPE_SBOX);
    EXPECT_EQ(module.getUpdateType(), UPDATE_TYPE_SBOX);
}

// ---- A module with a package ----

TEST_F(FWUpdateSymbolBinding, AModuleWithAPackageTakesItsNamesFromTheIdentifier)
{
    installControl("tuner");
    FWUpdateSymbol module("tuner");
    ASSERT_EQ(module.loadSymbol("tuner"), 0);
    EXPECT_EQ(module.getLibName(), "tuner");
    EXPECT_EQ(module.getEMPName(), "empTuner");
    EXPECT_EQ(module.getFirmwareName(), "Tuner");
    EXPECT_EQ(module.empImagePath, "/opt/usr/apps/appbinarymanager/empTuner.img");
    EXPECT_EQ(module.getSymbolType(), 0u);
    EXPECT_EQ(module.getUpdateType(), UPDATE_TYPE_EMP);
    EXPECT_TRUE(module.isEMP);
    EXPECT_THAT(platform.log(), IsEmpty());
}

TEST_F(FWUpdateSymbolBinding, LoadingSaysWhoAsksAndThenAsksForTheIdentifier)
{
    const ControlRecorder& recorder = installControl("tuner");
    FWUpdateSymbol module("tuner");
    ASSERT_EQ(module.loadSymbol("tuner"), 0);
    EXPECT_THAT(recorder.calls(), ElementsAre(R"(setContext("tuner", 2, ""))", "getEMPID()"));
}

TEST_F(FWUpdateSymbolBinding, TheResultsOfTheContextAndTheIdentifierAreNotLookedAt)
{
    ControlRecorder& recorder = installControl("tuner");
    recorder.answers.results = {{"setContext", -7}, {"getEMPID", -7}};
    FWUpdateSymbol module("tuner");
    EXPECT_EQ(module.loadSymbol("tuner"), 0);
    EXPECT_EQ(module.getEMPName(), "empTuner");
}

TEST_F(FWUpdateSymbolBinding, LoadingResetsTheUpdateType)
{
    installControl("tuner");
    FWUpdateSymbol module("tuner");
    module.setUpdateType(UPDATE_TYPE_BUILTIN);
    ASSERT_EQ(module.loadSymbol("tuner"), 0);
    EXPECT_EQ(module.getUpdateType(), UPDATE_TYPE_EMP);
}

TEST_F(FWUpdateSymbolBinding, TheNameToLoadReplacesTheNameOfTheModule)
{
    const ControlRecorder& recorder = installControl("tuner");
    FWUpdateSymbol module("other");
    ASSERT_EQ(module.loadSymbol("tuner"), 0);
    EXPECT_EQ(module.getLibName(), "tuner");
    EXPECT_EQ(recorder.calls().at(0), R"(setContext("tuner", 2, ""))");
}

TEST_F(FWUpdateSymbolBinding, AProductLibraryIsNotLookedForInTheSystemDirectory)
{
    installControl("tuner", set::kSystemControls);
    FWUpdateSymbol module("tuner");
    EXPECT_EQ(module.loadSymbol("tuner"), -1);
}

TEST_F(FWUpdateSymbolBinding, ASystemLibraryIsFoundInTheSystemDirectory)
{
    installControl("tuner", set::kSystemControls);
    FWUpdateSymbol module("tuner", true);
    EXPECT_EQ(module.loadSymbol("tuner"), 0);
}

TEST_F(FWUpdateSymbolBinding, ASystemLibraryIsNotLookedForInTheProductDirectory)
{
    installControl("tuner");
    FWUpdateSymbol module("tuner", true);
    EXPECT_EQ(module.loadSymbol("tuner"), -1);
}

TEST_F(FWUpdateSymbolBinding, TheProductLibraryWinsForAProductModuleOfTheSameName)
{
    const ControlRecorder& product = installControl("tuner");
    const ControlRecorder& system = installControl("tuner", set::kSystemControls);
    FWUpdateSymbol module("tuner");
    ASSERT_EQ(module.loadSymbol("tuner"), 0);
    EXPECT_THAT(product.calls(), SizeIs(2));
    EXPECT_THAT(system.calls(), IsEmpty());
}

TEST_F(FWUpdateSymbolBinding, ALinkToALibraryIsFollowed)
{
    installControl("tuner", "/tmp");
    fs::create_symlink("/tmp/tuner.so", std::string(set::kControls) + "/linked.so");
    FWUpdateSymbol module("linked");
    EXPECT_EQ(module.loadSymbol("linked"), 0);
    EXPECT_EQ(module.getLibName(), "linked");
}

// ---- The identifier ----

struct IdentifierCase {
    const char* identifier;
    const char* firmwareName;
};

class FWUpdateSymbolIdentifier : public FWUpdateSymbolBinding
{
protected:
    // The result of loading a module whose library names itself so.
    int load(const std::string& identifier)
    {
        installControl("tuner").answers.empId = identifier;
        return module.loadSymbol("tuner");
    }

    FWUpdateSymbol module{"tuner"};
};

TEST_F(FWUpdateSymbolIdentifier, LosesItsTagAlsoInTheMiddle)
{
    ASSERT_EQ(load("xyempab"), 0);
    EXPECT_EQ(module.getFirmwareName(), "xyab");
    EXPECT_EQ(module.getEMPName(), "xyempab");
    EXPECT_EQ(module.empImagePath, "/opt/usr/apps/appbinarymanager/xyempab.img");
}

TEST_F(FWUpdateSymbolIdentifier, LosesOnlyTheFirstOfTwoTags)
{
    ASSERT_EQ(load("empTuneremp"), 0);
    EXPECT_EQ(module.getFirmwareName(), "Tuneremp");
}

TEST_F(FWUpdateSymbolIdentifier, ThatIsOnlyTheTagLeavesNoFirmwareName)
{
    ASSERT_EQ(load("emp"), 0);
    EXPECT_EQ(module.getFirmwareName(), "");
    EXPECT_TRUE(module.isEMP);
}

TEST_F(FWUpdateSymbolIdentifier, MayHoldEveryDigitAndLetter)
{
    const std::string all = "emp0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    ASSERT_EQ(load(all), 0);
    EXPECT_EQ(module.getEMPName(), all);
}

TEST_F(FWUpdateSymbolIdentifier, WithoutTheTagIsWrong)
{
    EXPECT_EQ(load("Tuner2"), -1);
    EXPECT_THAT(platform.log(), ElementsAre(error("Error: EMPID is Wrong (Tuner2)")));
}

TEST_F(FWUpdateSymbolIdentifier, WithoutTheTagIsKeptInBothNames)
{
    load("Tuner2");
    EXPECT_EQ(module.getEMPName(), "Tuner2");
    EXPECT_EQ(module.getFirmwareName(), "Tuner2");
    EXPECT_EQ(module.empImagePath, "");
    EXPECT_FALSE(module.isEMP);
}

TEST_F(FWUpdateSymbolIdentifier, WithTheTagInCapitalsIsWrong)
{
    EXPECT_EQ(load("EMPTuner"), -1);
    EXPECT_THAT(platform.log(), ElementsAre(error("Error: EMPID is Wrong (EMPTuner)")));
}

TEST_F(FWUpdateSymbolIdentifier, WithAnUnderscoreIsRefusedBeforeTheTagIsLookedFor)
{
    EXPECT_EQ(load("emp_tuner"), -1);
    EXPECT_THAT(platform.log(), ElementsAre(error("Error: use EMPID only English and numbers. emp_tuner")));
    EXPECT_EQ(module.getEMPName(), "");
}

TEST_F(FWUpdateSymbolIdentifier, ThatIsEmptyIsLoggedWithTheLibrary)
{
    EXPECT_EQ(load(""), -1);
    EXPECT_THAT(platform.log(), ElementsAre(error("Error: EMPID is empty.(tuner)")));
}

TEST_F(FWUpdateSymbolIdentifier, EndsAtItsFirstZeroByte)
{
    ASSERT_EQ(load(std::string("empTuner\0_x", 11)), 0);
    EXPECT_EQ(module.getEMPName(), "empTuner");
}

TEST_F(FWUpdateSymbolIdentifier, OfAllThe128BytesNeedsNoTerminator)
{
    const std::string full = "emp" + std::string(125, 'a');
    ASSERT_EQ(load(full), 0);
    EXPECT_EQ(module.getEMPName(), full);
}

TEST_F(FWUpdateSymbolIdentifier, OfARefusedCharacterIsStillGivenBack)
{
    installControl("tuner").answers.empId = "emp tuner";
    module.loadSymbol("tuner");
    platform.clearLog();
    std::string text = "before";
    EXPECT_EQ(module.getEMPID(text), -1);
    EXPECT_EQ(text, "emp tuner");
    EXPECT_THAT(platform.log(), ElementsAre(error("Error: use EMPID only English and numbers. emp tuner")));
}

TEST_F(FWUpdateSymbolIdentifier, ThatIsEmptyReplacesTheTextOfTheCaller)
{
    load("");
    std::string text = "before";
    EXPECT_EQ(module.getEMPID(text), -1);
    EXPECT_EQ(text, "");
}

TEST_F(FWUpdateSymbolIdentifier, IsAskedForInAZeroedBufferEachTime)
{
    ControlRecorder& recorder = installControl("tuner");
    ASSERT_EQ(module.loadSymbol("tuner"), 0);
    recorder.answers.empId = "emp";
    std::string text;
    EXPECT_EQ(module.getEMPID(text), 0);
    EXPECT_EQ(text, "emp");
}

class FWUpdateSymbolIdentifierCharacter : public FWUpdateSymbolIdentifier,
                                          public testing::WithParamInterface<int>
{
};

TEST_P(FWUpdateSymbolIdentifierCharacter, IsRefused)
{
    const std::string identifier = std::string("emp") + static_cast<char>(GetParam());
    EXPECT_EQ(load(identifier), -1);
    EXPECT_THAT(platform.log(),
                ElementsAre(error("Error: use EMPID only English and numbers. " + identifier)));
}

// The neighbours of the three ranges, and letters that a locale might count as such.
INSTANTIATE_TEST_SUITE_P(BesideTheRanges, FWUpdateSymbolIdentifierCharacter,
                         testing::Values('/', ':', '@', '[', '`', '{', '.', '-', ' ', '\n', 0x7F, 0xE4,
                                         0xFF));

// ---- An external module ----

class FWUpdateSymbolExternal : public FWUpdateSymbolBinding
{
};

TEST_F(FWUpdateSymbolExternal, LoadsWithoutAnIdentifier)
{
    const ControlRecorder& recorder = installControl("EXT-hdmi");
    FWUpdateSymbol module("EXT-hdmi");
    module.setUpdateType(UPDATE_TYPE_BUILTIN);
    EXPECT_EQ(module.loadSymbol("EXT-hdmi"), 0);
    EXPECT_EQ(module.getSymbolType(), 1u);
    EXPECT_FALSE(module.isEMP);
    EXPECT_EQ(module.getEMPName(), "");
    EXPECT_EQ(module.getFirmwareName(), "");
    EXPECT_EQ(module.empImagePath, "");
    EXPECT_EQ(module.getUpdateType(), UPDATE_TYPE_EMP);
    EXPECT_THAT(recorder.calls(), ElementsAre(R"(setContext("EXT-hdmi", 2, ""))"));
}

TEST_F(FWUpdateSymbolExternal, IsTold)
{
    installControl("EXT-hdmi");
    FWUpdateSymbol module("EXT-hdmi");
    module.loadSymbol("EXT-hdmi");
    EXPECT_THAT(platform.log(), ElementsAre(error("Not Update Symbol [EXT-hdmi]")));
}

TEST_F(FWUpdateSymbolExternal, HasNoExpectedTimeThoughItsLibraryHas)
{
    const ControlRecorder& recorder = installControl("EXT-hdmi");
    FWUpdateSymbol module("EXT-hdmi");
    module.loadSymbol("EXT-hdmi");
    int time = 77;
    EXPECT_EQ(module.getExpectedTime(&time), -1);
    EXPECT_EQ(time, 77);
    EXPECT_THAT(recorder.calls(), SizeIs(1));
}

TEST_F(FWUpdateSymbolExternal, TakesNoDecryptedImageThoughItsLibraryWould)
{
    const ControlRecorder& recorder = installControl("EXT-hdmi");
    FWUpdateSymbol module("EXT-hdmi");
    module.loadSymbol("EXT-hdmi");
    const unsigned char data[] = {1};
    EXPECT_EQ(module.doUpdate_decryption(data, 1), -1);
    EXPECT_THAT(recorder.calls(), SizeIs(1));
}

TEST_F(FWUpdateSymbolExternal, TellsItsProgressAndHearsOfTheEnd)
{
    installControl("EXT-hdmi");
    FWUpdateSymbol module("EXT-hdmi");
    module.loadSymbol("EXT-hdmi");
    unsigned int progress = 0;
    EXPECT_EQ(module.getUpdateProgress(&progress), 0);
    EXPECT_EQ(progress, 42u);
    EXPECT_EQ(module.allUpdateDone(), 0);
}

struct NameCase {
    const char* name;
    bool isExternal;
};

void PrintTo(const NameCase& one, std::ostream* out)
{
    *out << one.name;
}

class FWUpdateSymbolName : public FWUpdateSymbolBinding, public testing::WithParamInterface<NameCase>
{
};

TEST_P(FWUpdateSymbolName, DecidesWhatTheModuleIs)
{
    installControl(GetParam().name);
    FWUpdateSymbol module(GetParam().name);
    ASSERT_EQ(module.loadSymbol(GetParam().name), 0);
    EXPECT_EQ(module.getSymbolType(), GetParam().isExternal ? 1u : 0u);
    EXPECT_EQ(isExternalName(GetParam().name), GetParam().isExternal);
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutThePrefix, FWUpdateSymbolName,
                         testing::Values(NameCase{"ext-foo", true}, NameCase{"EXT-foo", true},
                                         NameCase{"xEXT-y", true}, NameCase{"eXt-", true},
                                         NameCase{"fooExT-", true}, NameCase{"EXT_foo", false},
                                         NameCase{"EXTfoo", false}, NameCase{"EX-T", false},
                                         NameCase{"next", false}, NameCase{"\xC3\xA4-ext\xFF", false},
                                         NameCase{"\xFFxt-", false}));

// ---- Libraries that cannot be loaded ----

class FWUpdateSymbolRefused : public FWUpdateSymbolBinding
{
};

TEST_F(FWUpdateSymbolRefused, AnEmptyNameIsSilent)
{
    FWUpdateSymbol module("tuner");
    EXPECT_EQ(module.loadSymbol(""), -1);
    EXPECT_EQ(module.getLibName(), "tuner");
    EXPECT_THAT(platform.log(), IsEmpty());
}

TEST_F(FWUpdateSymbolRefused, AnEmptyNameIsNotTheFileOfThatName)
{
    copyControl("");
    FWUpdateSymbol module("");
    EXPECT_EQ(module.loadSymbol(""), -1);
    EXPECT_EQ(module.handle, nullptr);
}

TEST_F(FWUpdateSymbolRefused, AMissingFileIsSilent)
{
    FWUpdateSymbol module("other");
    EXPECT_EQ(module.loadSymbol("tuner"), -1);
    EXPECT_EQ(module.getLibName(), "other");
    EXPECT_EQ(module.handle, nullptr);
    EXPECT_THAT(platform.log(), IsEmpty());
}

TEST_F(FWUpdateSymbolRefused, ADanglingLinkIsSilent)
{
    fs::create_symlink("/tmp/nothing.so", std::string(set::kControls) + "/tuner.so");
    FWUpdateSymbol module("tuner");
    EXPECT_EQ(module.loadSymbol("tuner"), -1);
    EXPECT_THAT(platform.log(), IsEmpty());
}

TEST_F(FWUpdateSymbolRefused, ALinkToItselfIsSilent)
{
    fs::create_symlink("tuner.so", std::string(set::kControls) + "/tuner.so");
    FWUpdateSymbol module("tuner");
    EXPECT_EQ(module.loadSymbol("tuner"), -1);
    EXPECT_THAT(platform.log(), IsEmpty());
}

// The loader tells its error once: the platform log has it, the trace recorder gets the rest of the message.
TEST_F(FWUpdateSymbolRefused, AFileThatIsNoLibraryIsLoggedWithTheLoadersText)
{
    const std::string path = std::string(set::kControls) + "/tuner.so";
    writeFile(path, "not a library, though long enough to be read as one: " + std::string(100, ' '));
    FWUpdateSymbol module("other");
    EXPECT_EQ(module.loadSymbol("tuner"), -1);
    EXPECT_EQ(module.handle, nullptr);
    EXPECT_EQ(module.getLibName(), "tuner");
    EXPECT_THAT(
        platform.log(),
        ElementsAre(LogLine{LogSink::kPlatformOnly, 6,
                            "Error: dlsym libfile: " + path + " error: " + path + ": invalid ELF header\n"},
                    LogLine{LogSink::kTraceOnly, 6, "Error: dlsym libfile: " + path + " error: \n"}));
}

TEST_F(FWUpdateSymbolRefused, ThePathOfALinkIsLoggedAsItStandsInTheDirectory)
{
    writeFile("/tmp/file.so", "");
    const std::string path = std::string(set::kControls) + "/tuner.so";
    fs::create_symlink("/tmp/file.so", path);
    FWUpdateSymbol module("tuner");
    EXPECT_EQ(module.loadSymbol("tuner"), -1);
    EXPECT_EQ(platform.log().at(0).text,
              "Error: dlsym libfile: " + path + " error: /tmp/file.so: file too short\n");
}

TEST_F(FWUpdateSymbolRefused, ALibraryInTheSystemDirectoryIsLoggedWithThatPath)
{
    writeFile(std::string(set::kSystemControls) + "/tuner.so", "");
    FWUpdateSymbol module("tuner", true);
    EXPECT_EQ(module.loadSymbol("tuner"), -1);
    EXPECT_EQ(platform.log().at(0).text, "Error: dlsym libfile: /usr/fwupdate/controls/tuner.so error: "
                                         "/usr/fwupdate/controls/tuner.so: file too short\n");
}

TEST_F(FWUpdateSymbolRefused, ADirectoryIsLogged)
{
    const std::string path = std::string(set::kControls) + "/tuner.so";
    fs::create_directory(path);
    FWUpdateSymbol module("tuner");
    EXPECT_EQ(module.loadSymbol("tuner"), -1);
    ASSERT_THAT(platform.log(), SizeIs(2));
    EXPECT_THAT(platform.log().at(0).text, testing::StartsWith("Error: dlsym libfile: " + path + " error: "));
}

// Nobody ever writes into it.
TEST_F(FWUpdateSymbolRefused, APipeIsNotWaitedFor)
{
    const std::string path = std::string(set::kControls) + "/tuner.so";
    ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
    FWUpdateSymbol module("tuner");
    EXPECT_EQ(module.loadSymbol("tuner"), -1);
    EXPECT_EQ(platform.log().at(0).text, "Error: dlsym libfile: " + path + " error: not a regular file\n");
}

using Part = ElfW(Phdr);

std::vector<Part> partsOf(const std::string& library)
{
    ElfW(Ehdr) header;
    memcpy(&header, library.data(), sizeof header);
    std::vector<Part> parts(header.e_phnum);
    memcpy(parts.data(), library.data() + header.e_phoff, parts.size() * sizeof(Part));
    return parts;
}

std::string withParts(std::string library, const std::vector<Part>& parts)
{
    ElfW(Ehdr) header;
    memcpy(&header, library.data(), sizeof header);
    memcpy(library.data() + header.e_phoff, parts.data(), parts.size() * sizeof(Part));
    return library;
}

class FWUpdateSymbolDamaged : public FWUpdateSymbolRefused
{
protected:
    void SetUp() override
    {
        FWUpdateSymbolRefused::SetUp();
        copyControl("tuner");
        whole = common::readWhole(path);
    }

    void expectRefused(const std::string& library, const std::string& reason)
    {
        writeFile(path, library);
        platform.reset();
        FWUpdateSymbol module("tuner");
        EXPECT_EQ(module.loadSymbol("tuner"), -1);
        EXPECT_EQ(platform.log().at(0).text,
                  "Error: dlsym libfile: " + path + " error: " + path + ": " + reason + "\n");
    }

    const std::string path = std::string(set::kControls) + "/tuner.so";
    std::string whole;
};

// The loader maps what the program headers name, and what is missing behind the file's end is a bus error.
TEST_F(FWUpdateSymbolDamaged, ALibraryThatWasCutIsRefusedWhereverTheCutIs)
{
    size_t end = 0;
    for (const Part& part : partsOf(whole)) {
        end = std::max<size_t>(end, part.p_type == PT_LOAD ? part.p_offset + part.p_filesz : 0);
    }
    for (size_t sixteenth = 1; sixteenth < 16; ++sixteenth) {
        expectRefused(whole.substr(0, end * sixteenth / 16), "the file ends too soon");
    }
    expectRefused(whole.substr(0, end - 1), "the file ends too soon");
}

TEST_F(FWUpdateSymbolDamaged, ALibraryWhoseHeadersLeadTheLoaderAstrayIsRefused)
{
    constexpr size_t kAway = size_t{1} << 30;
    for (const unsigned int type : {PT_LOAD, PT_DYNAMIC, PT_NOTE}) {
        std::vector<Part> parts = partsOf(whole);
        const auto damaged =
            std::find_if(parts.begin(), parts.end(), [&](const Part& part) { return part.p_type == type; });
        ASSERT_NE(damaged, parts.end());
        damaged->p_vaddr += kAway;
        expectRefused(withParts(whole, parts), "program headers contradict each other");
    }
}

TEST_F(FWUpdateSymbolRefused, ALibraryThatCallsWhatNobodyHasIsRefusedAtOnce)
{
    copyControl("tuner", set::kControls, "unresolved");
    FWUpdateSymbol module("tuner");
    EXPECT_EQ(module.loadSymbol("tuner"), -1);
    const std::string path = std::string(set::kControls) + "/tuner.so";
    EXPECT_EQ(platform.log().at(0).text, "Error: dlsym libfile: " + path + " error: " + path +
                                             ": undefined symbol: functionThatNobodyHas\n");
}

// ---- Entry points ----

class FWUpdateSymbolRequiredEntry : public FWUpdateSymbolBinding,
                                    public testing::WithParamInterface<const char*>
{
protected:
    // Of the five in their order, those before the missing one stay bound.
    static std::vector<bool> boundSlots(const SYMFunction& functions)
    {
        return {bool(functions.setContext),
                bool(functions.getEMPID),
                bool(functions.getActiveVersion),
                bool(functions.checkVersion),
                bool(functions.doUpdate),
                bool(functions.allUpdateDone),
                bool(functions.doUpdate_decryption),
                bool(functions.getExpectedTime),
                bool(functions.getUpdateProgress)};
    }
    static std::vector<bool> slotsBefore(const std::string& entry)
    {
        std::vector<bool> slots;
        bool before = true;
        for (const char* name :
             {"setContext", "getEMPID", "getActiveVersion", "checkVersion", "doUpdate", "allUpdateDone",
              "doUpdate_decryption", "getExpectedTime", "getUpdateProgress"}) {
            before = before && name != entry;
            slots.push_back(before);
        }
        return slots;
    }
};

TEST_P(FWUpdateSymbolRequiredEntry, ThatIsMissingFailsTheLoad)
{
    const std::string entry = GetParam();
    const ControlRecorder& recorder = installControl("tuner", set::kControls, "missing-" + entry);
    FWUpdateSymbol module("tuner");
    EXPECT_EQ(module.loadSymbol("tuner"), -1);
    EXPECT_THAT(platform.log(),
                ElementsAre(error(missingSymbol(std::string(set::kControls) + "/tuner.so", entry))));
    EXPECT_THAT(recorder.calls(), IsEmpty());
}

TEST_P(FWUpdateSymbolRequiredEntry, ThatIsMissingLeavesTheOnesBeforeItBound)
{
    copyControl("tuner", set::kControls, std::string("missing-") + GetParam());
    FWUpdateSymbol module("tuner");
    module.loadSymbol("tuner");
    EXPECT_EQ(boundSlots(module.functions), slotsBefore(GetParam()));
    EXPECT_NE(module.handle, nullptr);
    EXPECT_EQ(module.getLibName(), "tuner");
    EXPECT_FALSE(module.isEMP);
}

TEST_P(FWUpdateSymbolRequiredEntry, UnderItsCppNameIsMissing)
{
    const std::string entry = GetParam();
    copyControl("tuner", set::kControls, "mangled-" + entry);
    FWUpdateSymbol module("tuner");
    EXPECT_EQ(module.loadSymbol("tuner"), -1);
    EXPECT_THAT(platform.log(),
                ElementsAre(error(missingSymbol(std::string(set::kControls) + "/tuner.so", entry))));
}

INSTANTIATE_TEST_SUITE_P(EachOfTheFive, FWUpdateSymbolRequiredEntry,
                         testing::Values("setContext", "getEMPID", "getActiveVersion", "checkVersion",
                                         "doUpdate"));

class FWUpdateSymbolOptionalEntry : public FWUpdateSymbolBinding,
                                    public testing::WithParamInterface<const char*>
{
protected:
    static int call(FWUpdateSymbol& module, const std::string& entry)
    {
        int time = 0;
        unsigned int progress = 0;
        const unsigned char data[1] = {};
        const std::map<std::string, std::function<int()>> calls = {
            {"allUpdateDone", [&] { return module.allUpdateDone(); }},
            {"doUpdate_decryption", [&] { return module.doUpdate_decryption(data, 1); }},
            {"getExpectedTime", [&] { return module.getExpectedTime(&time); }},
            {"getUpdateProgress", [&] { return module.getUpdateProgress(&progress); }},
        };
        return calls.at(entry)();
    }
};

TEST_P(FWUpdateSymbolOptionalEntry, ThatIsMissingIsOnlyADebugMessage)
{
    const std::string entry = GetParam();
    installControl("tuner", set::kControls, "missing-" + entry);
    FWUpdateSymbol module("tuner");
    EXPECT_EQ(module.loadSymbol("tuner"), 0);
    EXPECT_TRUE(module.isEMP);
    EXPECT_THAT(platform.log(),
                ElementsAre(platformDebug(missingSymbol(std::string(set::kControls) + "/tuner.so", entry))));
}

TEST_P(FWUpdateSymbolOptionalEntry, ThatIsMissingAnswersMinus1)
{
    installControl("tuner", set::kControls, std::string("missing-") + GetParam());
    FWUpdateSymbol module("tuner");
    ASSERT_EQ(module.loadSymbol("tuner"), 0);
    EXPECT_EQ(call(module, GetParam()), -1);
}

TEST_P(FWUpdateSymbolOptionalEntry, UnderItsCppNameIsMissing)
{
    installControl("tuner", set::kControls, std::string("mangled-") + GetParam());
    FWUpdateSymbol module("tuner");
    ASSERT_EQ(module.loadSymbol("tuner"), 0);
    EXPECT_EQ(call(module, GetParam()), -1);
}

TEST_P(FWUpdateSymbolOptionalEntry, AtTheAddressNullIsSilentlyEmpty)
{
    installControl("tuner", set::kControls, std::string("null-") + GetParam());
    FWUpdateSymbol module("tuner");
    ASSERT_EQ(module.loadSymbol("tuner"), 0);
    EXPECT_EQ(call(module, GetParam()), -1);
    EXPECT_THAT(platform.log(), IsEmpty());
}

TEST_P(FWUpdateSymbolOptionalEntry, GivesTheLibrarysResult)
{
    installControl("tuner").answers.results[GetParam()] = 23;
    FWUpdateSymbol module("tuner");
    ASSERT_EQ(module.loadSymbol("tuner"), 0);
    EXPECT_EQ(call(module, GetParam()), 23);
}

TEST_P(FWUpdateSymbolOptionalEntry, OfAModuleThatIsNotLoadedAnswersMinus1)
{
    FWUpdateSymbol module("tuner");
    EXPECT_EQ(call(module, GetParam()), -1);
}

INSTANTIATE_TEST_SUITE_P(EachOfTheFour, FWUpdateSymbolOptionalEntry,
                         testing::Values("allUpdateDone", "doUpdate_decryption", "getExpectedTime",
                                         "getUpdateProgress"));

// Whether a symbol is there is the loader's word, not the address: the load goes on, and the call throws.
TEST_F(FWUpdateSymbolBinding, ARequiredEntryAtTheAddressNullThrowsWhenItIsCalled)
{
    copyControl("tuner", set::kControls, "null-setContext");
    FWUpdateSymbol module("tuner");
    EXPECT_THROW(module.loadSymbol("tuner"), std::bad_function_call);
    EXPECT_THAT(platform.log(), IsEmpty());
    EXPECT_TRUE(module.functions.getUpdateProgress);
}

TEST_F(FWUpdateSymbolBinding, ARequiredEntryAtTheAddressNullThatTheLoadDoesNotNeedIsNoFailure)
{
    installControl("tuner", set::kControls, "null-doUpdate");
    FWUpdateSymbol module("tuner");
    EXPECT_EQ(module.loadSymbol("tuner"), 0);
    EXPECT_THROW(module.doUpdate("tuner", 0, 0), std::bad_function_call);
}

TEST_F(FWUpdateSymbolBinding, AFailedModuleCanBeDestroyed)
{
    copyControl("tuner", set::kControls, "missing-doUpdate");
    const std::string path = std::string(set::kControls) + "/tuner.so";
    {
        FWUpdateSymbol module("tuner");
        module.loadSymbol("tuner");
        EXPECT_NE(dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
        dlclose(module.handle); // the look above counted
    }
    EXPECT_EQ(dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
}

TEST_F(FWUpdateSymbolBinding, TheLibraryIsClosedWithItsModule)
{
    copyControl("tuner");
    const std::string path = std::string(set::kControls) + "/tuner.so";
    {
        FWUpdateSymbol module("tuner");
        ASSERT_EQ(module.loadSymbol("tuner"), 0);
    }
    EXPECT_EQ(dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
}

// ---- Calls into the library ----

class FWUpdateSymbolCalls : public FWUpdateSymbolBinding
{
protected:
    void SetUp() override
    {
        FWUpdateSymbolBinding::SetUp();
        recorder = &installControl("tuner");
        ASSERT_EQ(module.loadSymbol("tuner"), 0);
        recorder->clearCalls();
    }

    ControlRecorder* recorder = nullptr;
    FWUpdateSymbol module{"tuner"};
};

TEST_F(FWUpdateSymbolCalls, TheContextIsGivenWithTheLibraryName)
{
    char context[] = "FACTORY_AUTOMATION";
    recorder->answers.results["setContext"] = 5;
    EXPECT_EQ(module.setContext(FW_CALLER_SBOX, context), 5);
    EXPECT_THAT(recorder->calls(), ElementsAre(R"(setContext("tuner", 5, "FACTORY_AUTOMATION"))"));
}

TEST_F(FWUpdateSymbolCalls, ANullContextStaysNull)
{
    module.setContext(FW_CALLER_BUILTIN, nullptr);
    EXPECT_THAT(recorder->calls(), ElementsAre(R"(setContext("tuner", 6, null))"));
}

TEST_F(FWUpdateSymbolCalls, AnUnknownCallerIsPassedOnAsItIs)
{
    module.setContext(static_cast<FWUpdateCallerTypes>(8), nullptr);
    EXPECT_THAT(recorder->calls(), ElementsAre(R"(setContext("tuner", 8, null))"));
}

TEST_F(FWUpdateSymbolCalls, TheVersionIsAskedForAfterTheContextOfAPackage)
{
    char version[128] = {};
    recorder->answers.activeVersion = "3.4.5";
    recorder->answers.results = {{"setContext", -1}, {"getActiveVersion", 9}};
    EXPECT_EQ(module.getActiveVersion(version), 9);
    EXPECT_STREQ(version, "3.4.5");
    EXPECT_THAT(recorder->calls(), ElementsAre(R"(setContext("tuner", 2, ""))", "getActiveVersion()"));
}

TEST_F(FWUpdateSymbolCalls, AVersionIsCheckedWithTheLibrarysVerdictAndResult)
{
    recorder->answers.verdict = -3;
    recorder->answers.results["checkVersion"] = 4;
    int verdict = 0;
    EXPECT_EQ(module.checkVersion("1.2", &verdict), 4);
    EXPECT_EQ(verdict, -3);
    EXPECT_THAT(recorder->calls(), ElementsAre(R"(checkVersion("1.2"))"));
}

TEST_F(FWUpdateSymbolCalls, AnUpdateGetsNameAndValue)
{
    recorder->answers.results["doUpdate"] = -2;
    EXPECT_EQ(module.doUpdate("/a/b.bin", 0xFFFFFFFFUL, 99), -2);
    EXPECT_THAT(recorder->calls(), ElementsAre(R"(doUpdate("/a/b.bin", 4294967295))"));
}

TEST_F(FWUpdateSymbolCalls, ADecryptedImageIsPassedOnWithItsLength)
{
    const unsigned char data[] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(module.doUpdate_decryption(data, 3), 0);
    EXPECT_THAT(recorder->calls(), ElementsAre("doUpdate_decryption(3)"));
    EXPECT_THAT(recorder->decryptedPayloads(), ElementsAre("abc"));
}

TEST_F(FWUpdateSymbolCalls, TimeAndProgressAreTheLibrarys)
{
    recorder->answers.expectedTime = 90;
    recorder->answers.progress = 77;
    int time = 0;
    unsigned int progress = 0;
    EXPECT_EQ(module.getExpectedTime(&time), 0);
    EXPECT_EQ(module.getUpdateProgress(&progress), 0);
    EXPECT_EQ(time, 90);
    EXPECT_EQ(progress, 77u);
}

TEST_F(FWUpdateSymbolCalls, TheEndOfTheUpdatesIsPassedOn)
{
    recorder->answers.results["allUpdateDone"] = 1;
    EXPECT_EQ(module.allUpdateDone(), 1);
    EXPECT_THAT(recorder->calls(), ElementsAre("allUpdateDone()"));
}

TEST_F(FWUpdateSymbolCalls, ComeFromWhicheverThreadUsesTheModule)
{
    std::thread::id thread;
    recorder->answers.onCall = [&](const std::string&) { thread = std::this_thread::get_id(); };
    std::thread worker([&] { module.doUpdate("tuner", 0, 0); });
    const std::thread::id expected = worker.get_id();
    worker.join();
    EXPECT_EQ(thread, expected);
}

TEST_F(FWUpdateSymbolCalls, LetAnExceptionOfTheLibraryThrough)
{
    recorder->answers.onCall = [](const std::string&) { throw std::runtime_error("library"); };
    EXPECT_THROW(module.doUpdate("tuner", 0, 0), std::runtime_error);
}

TEST_F(FWUpdateSymbolBinding, ARequiredCallOfAModuleThatIsNotLoadedThrows)
{
    FWUpdateSymbol module("tuner");
    char text[128] = {};
    int verdict = 0;
    std::string identifier;
    EXPECT_THROW(module.setContext(FW_CALLER_EMP, text), std::bad_function_call);
    EXPECT_THROW(module.getActiveVersion(text), std::bad_function_call);
    EXPECT_THROW(module.checkVersion("", &verdict), std::bad_function_call);
    EXPECT_THROW(module.doUpdate("", 0, 0), std::bad_function_call);
    EXPECT_THROW(module.getEMPID(identifier), std::bad_function_call);
}

} // namespace
