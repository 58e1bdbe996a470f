#include "tools/tavro/Doctor.h"

#include "Agent/AgentCommon/AgentInitializer.h"
#include "Agent/CheckpointGui/AgentLauncher.h"
#include "datapath/common/infra/InputTextFile.h"
#include "platform/Process.h"
#include "platform/Shell.h"
#include "platform/Text.h"
#include "platform/Utf.h"
#include "tools/tavro/Command.h"
#include "tools/tavro/SystemFacts.h"
#include "tools/tavro/TweaksExamination.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include <unistd.h>

namespace
{

using namespace Tool;
namespace fs = std::filesystem;

constexpr bool IS_WINDOWS = platform::PATH_SEPARATOR == '\\';

#ifdef _WIN32
constexpr const char* PROGRAM = "TavroVssAgentGUI.exe";
#else
constexpr const char* PROGRAM = "TavroVssAgentGUI";
#endif

std::string folderOf(const std::string& path)
{
    const std::size_t separator = path.rfind(platform::PATH_SEPARATOR);
    if (separator == std::string::npos)
    {
        return ".";
    }
    const bool isRoot = separator == 0 || path[separator - 1] == ':'; // whose separator belongs to it
    return path.substr(0, isRoot ? separator + 1 : separator);
}

/// As narrow as the other paths; std::filesystem would make another encoding of it on Windows.
std::string workingFolder()
{
    std::array<char, 4096> path{};
    return getcwd(path.data(), static_cast<int>(path.size())) == nullptr ? "a removed folder" : path.data();
}

bool isFile(const std::string& path)
{
    std::error_code error;
    const fs::path file = pathOf(path);
    return fs::exists(file, error) && !fs::is_directory(file, error);
}

bool isFolder(const std::string& path)
{
    std::error_code error;
    return fs::is_directory(pathOf(path), error);
}

/// The path, and where it leads if it is a link, such as that which the Debian package has beside the program.
std::string withTarget(const std::string& path)
{
    std::error_code error;
    const fs::path target = fs::read_symlink(pathOf(path), error);
    return error ? path : path + ", a link to " + narrowOf(target) + ",";
}

std::string bytesText(std::uintmax_t bytes)
{
    constexpr std::uintmax_t MIB = 1'048'576;
    return bytes < 10 * MIB ? std::to_string(bytes) + " bytes" : std::to_string(bytes / MIB) + " MiB";
}

class Doctor
{
public:
    explicit Doctor(std::string programPath) : m_program(std::move(programPath)) {}

    void examineProgram();
    void examineWorkingFolder();
    void examineTweakFiles();
    void examineLog();
    void examineSettings();
    void examineAgent();

    [[nodiscard]] std::vector<Diagnosis> take() { return std::move(m_diagnoses); }

private:
    void fine(const char* step, const std::string& text) { m_diagnoses.push_back({step, State::Fine, text, {}}); }
    void note(const char* step, const std::string& text) { m_diagnoses.push_back({step, State::Note, text, {}}); }
    void fault(const char* step, const std::string& text, const std::string& remedy)
    {
        m_diagnoses.push_back({step, State::Fault, text, remedy});
    }

    void faultOfUser(const char* step, const std::string& text, const std::string& remedy);
    [[nodiscard]] bool examineLogFolders(const AgentLogPlace& place);
    void examineLiveFile(const std::string& path);
    void examineNumberedFiles(const std::string& basePath);
    void examineSpace(const std::string& folder);
    void examineSettingsText(const std::string& path);
    void examineOwnership(const char* step, const std::string& path, const std::string& danger);
    void examineWriters(const char* step, const std::string& path, const std::string& danger);

    const std::string m_program;
    std::vector<Diagnosis> m_diagnoses;
};

/// What the user of the tool may not do is a fault only if that user is an administrator, as the program is.
void Doctor::faultOfUser(const char* step, const std::string& text, const std::string& remedy)
{
    isAdministrator() ? fault(step, text, remedy)
                      : note(step, text + ": so it is for this user, who is no administrator; start the tool as an "
                                          "administrator to see how it is for the program");
}

void Doctor::examineWriters(const char* step, const std::string& path, const std::string& danger)
{
    if (const std::string writers = otherWriters(path); !writers.empty())
    {
        fault(step, path + " may be written by " + writers + ": " + danger,
              "let only administrators write there, or move it to such a folder");
    }
}

/// Whether somebody may write a file, or exchange it or one of the folders above it.
void Doctor::examineOwnership(const char* step, const std::string& path, const std::string& danger)
{
    examineWriters(step, path, danger);
    std::error_code error;
    fs::path folder = fs::absolute(pathOf(path), error).parent_path();
    for (; !error && !folder.empty(); folder = folder.parent_path())
    {
        if (const std::string movers = otherMovers(narrowOf(folder)); !movers.empty())
        {
            std::string text = path;
            text.append(" may be exchanged by ").append(movers);
            text.append(", who may write ").append(narrowOf(folder)).append(": ").append(danger);
            fault(step, text, "let only administrators write there, or move it to such a folder");
            return;
        }
        if (folder == folder.parent_path())
        {
            return;
        }
    }
}

void Doctor::examineProgram()
{
    constexpr const char* STEP = "program";
    if (!isFile(m_program))
    {
        fault(STEP, m_program + " is not there", "install the program, or name it: --program PATH");
        return;
    }
    if (m_program.size() >= platform::PATH_BUFFER_SIZE)
    {
        fault(STEP,
              m_program + " has a path of " + std::to_string(m_program.size()) + " bytes, of which the program takes " +
                  std::to_string(platform::PATH_BUFFER_SIZE - 1) + ": it does not find its settings",
              "move it to a folder with a shorter path");
    }
    if (!mayRun(m_program))
    {
        faultOfUser(STEP, m_program + " may not be run", "let this user run it");
        return;
    }
    fine(STEP, m_program);
    examineWriters(STEP, folderOf(m_program), "whoever may write there can exchange what runs elevated");
    examineOwnership(STEP, m_program, "whoever may do that decides what runs elevated");
}

void Doctor::examineWorkingFolder()
{
    constexpr const char* STEP = "folder";
    constexpr const char* APP_DATA = "test_appdata";
    fine(STEP, workingFolder() + " is the working folder");
    examineWriters(STEP, ".", "the elevated program obeys the tweak files in it, and may start an agent from it");
    if (!isFolder(APP_DATA) && !isFile(APP_DATA) && !mayWrite("."))
    {
        faultOfUser(STEP,
                    "the folder test_appdata is missing and cannot be made, which ends the program before its window",
                    "make it, or start the program in a folder where it may write");
    }
}

void Doctor::examineTweakFiles()
{
    constexpr const char* STEP = "tweaks";
    const std::vector<Tweaks::File> files = Tweaks::files();
    std::vector<std::string> paths = {folderOf(files.front().path), folderOf(files.back().path)};
    std::ranges::transform(files, std::back_inserter(paths), &Tweaks::File::path);
    for (const std::string& path : paths)
    {
        examineWriters(STEP, path, "the elevated program obeys it");
    }
    const Examination examination = examineTweaks();
    for (const Finding& finding : examination.findings)
    {
        const std::string text = finding.place.text() + ": " + finding.text;
        finding.severity == Severity::Error ? fault(STEP, text, "correct the line; tavro tweaks check looks again")
                                            : note(STEP, text);
    }
    if (examination.findings.empty())
    {
        const auto isFromFile = [](const auto& setting) { return setting.second.place.has_value(); };
        fine(STEP, std::to_string(std::ranges::count_if(examination.settings, isFromFile)) +
                       " tweaks are set by files: tavro tweaks show");
    }
}

void Doctor::examineLog()
{
    constexpr const char* STEP = "log";
    const std::optional<AgentLogPlace> place = agentLogPlace(CHECKPOINT_LOG);
    if (!place)
    {
        fault(STEP, "the system names no folder for application data, so the program runs without a log",
              "repair the user's or the machine's profile");
        return;
    }
    if (examineLogFolders(*place))
    {
        examineLiveFile(place->basePath + ".txt");
        examineNumberedFiles(place->basePath);
        examineSpace(folderOf(place->basePath));
    }
}

/// Returns whether the folder of the log exists.
bool Doctor::examineLogFolders(const AgentLogPlace& place)
{
    constexpr const char* STEP = "log";
    const std::string logs = folderOf(place.basePath);
    for (const std::string& folder : {place.productFolder, logs})
    {
        if (const std::string writers = otherWriters(folder); isFolder(folder) && !writers.empty())
        {
            std::string text = folder;
            text.append(" may be written by ").append(writers);
            text.append(": whoever may do that decides what is in the log, and where the elevated program writes it");
            note(STEP, text);
        }
    }
    if (isFolder(logs))
    {
        return true;
    }
    std::string parent = folderOf(place.productFolder);
    for (const std::string& folder : {place.productFolder, logs})
    {
        if (isFile(folder))
        {
            fault(STEP, folder + " is a file, where a folder is needed: the program runs without a log",
                  "move the file away");
            return false;
        }
        parent = isFolder(folder) ? folder : parent;
    }
    if (!isFolder(parent))
    {
        fault(STEP, logs + " cannot be made, because " + parent + " is missing: the program runs without a log",
              "make the folder");
        return false;
    }
    if (!mayWrite(parent))
    {
        faultOfUser(STEP,
                    logs + " cannot be made, because " + parent + " may not be written: the program runs without a log",
                    "make the folder, or run the program as an administrator");
        return false;
    }
    fine(STEP, logs + " is not there yet; the program makes it");
    examineSpace(parent);
    return false;
}

void Doctor::examineLiveFile(const std::string& path)
{
    constexpr const char* STEP = "log";
    if (!isFile(path))
    {
        const std::string text = path + " cannot be made: the program runs without a log";
        if (isFolder(path))
        {
            fault(STEP, text, "move the folder of that name away");
        }
        else if (!mayWrite(folderOf(path)))
        {
            faultOfUser(STEP, text, "let the program write into its folder");
        }
        else
        {
            fine(STEP, path + " is not there yet; the program makes it");
        }
        return;
    }
    const std::vector<std::string> programs = programsThatUse(path);
    if (!mayWrite(path))
    {
        constexpr const char* END = ": the program runs without a log";
        programs.empty() ? faultOfUser(STEP, path + " may not be written" + END, "let the program write the file")
                         : fault(STEP, path + " is held by " + programs[0] + END, "end that program");
        return;
    }
    if (!mayWrite(folderOf(path)))
    {
        faultOfUser(STEP, folderOf(path) + " may not be written: the log grows and is never rotated",
                    "let the program write into the folder");
    }
    std::error_code error;
    const std::uintmax_t bytes = isFile(path) ? fs::file_size(pathOf(path), error) : 0;
    fine(STEP, path + ", " + bytesText(error ? 0 : bytes));
    for (const std::string& program : programs)
    {
        std::string text = path;
        text.append(" is open in ").append(program).append("; only one program may write it");
        note(STEP, text);
    }
}

void Doctor::examineNumberedFiles(const std::string& basePath)
{
    constexpr const char* STEP = "log";
    const std::string prefix = basePath.substr(basePath.rfind(platform::PATH_SEPARATOR) + 1);
    std::uintmax_t bytes = 0;
    std::size_t numFiles = 0;
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(pathOf(folderOf(basePath)), error))
    {
        const std::string name = narrowOf(entry.path().filename());
        if (!name.starts_with(prefix) || name == prefix + ".txt" || entry.is_directory(error))
        {
            continue;
        }
        if (name.size() == prefix.size() || name[prefix.size()] < '0' || name[prefix.size()] > '9')
        {
            note(STEP, narrowOf(entry.path()) + " counts as the oldest numbered file and is removed first; keep copies "
                                                "elsewhere");
        }
        ++numFiles;
        bytes += entry.file_size(error);
    }
    fine(STEP, std::to_string(numFiles) + " rotated files, " + bytesText(bytes));
}

void Doctor::examineSpace(const std::string& folder)
{
    constexpr const char* STEP = "log";
    constexpr std::uintmax_t NEEDED =
        std::uintmax_t{20} * 1'048'576; // a live file until its rotation, and the next one
    std::error_code error;
    const fs::space_info space = fs::space(pathOf(folder), error);
    if (error)
    {
        return;
    }
    const std::string text = bytesText(space.available) + " are free for the log";
    space.available < NEEDED ? fault(STEP, text + ": lines are lost when the disk is full", "make room on that disk")
                             : fine(STEP, text);
}

void Doctor::examineSettings()
{
    constexpr const char* STEP = "settings";
    const std::string path = settingsPathOf(m_program);
    if (!InputTextFile(path).isOpen())
    {
        fault(STEP,
              withTarget(path) + (isFile(path) ? " cannot be read" : " is not there") +
                  ": the agent gets four empty settings",
              "write a file of four words: local address, local port, peer address, peer port");
        return;
    }
    examineSettingsText(path);
    examineWriters(STEP, path, "it decides to which machine the agent talks");
    const ConnectionSettings settings = readSettings(path);
    const std::array<const std::string*, 4> words = {&settings.localURL, &settings.localPort, &settings.peerURL,
                                                     &settings.peerPort};
    const auto numWords = std::ranges::count_if(words, [](const std::string* word) { return !word->empty(); });
    if (numWords < 4)
    {
        fault(STEP, path + " has " + std::to_string(numWords) + " of the four words",
              "write local address, local port, peer address and peer port, separated by blanks");
    }
    const std::u16string whole = composeCommandLine(settings, u"NAME");
    const std::u16string commandLine = whole.substr(0, whole.find(u'\0'));
    if (commandLine.size() != whole.size())
    {
        fault(STEP, path + " has a zero byte, which ends the command line: the agent gets no name", "remove that byte");
    }
    constexpr std::size_t LONGEST = 32'766; // letters that CreateProcessW takes
    if (IS_WINDOWS && commandLine.size() > LONGEST)
    {
        fault(STEP, path + " makes the command line longer than Windows allows", "shorten the words");
    }
    fine(STEP, "the command line at OK, with the name for NAME: " + platform::utf16ToUtf8(commandLine));
}

/// What the program takes in silence.
void Doctor::examineSettingsText(const std::string& path)
{
    constexpr const char* STEP = "settings";
    std::ifstream file(path, std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(file), {});
    if (bytes.starts_with("\xFF\xFE") || bytes.starts_with("\xFE\xFF"))
    {
        fault(STEP, path + " is UTF-16, which the program cannot read", "save it as ASCII");
    }
    else if (bytes.starts_with("\xEF\xBB\xBF"))
    {
        fault(STEP, path + " has a byte order mark, which becomes part of the local address",
              "save it without byte order mark");
    }
    else if (std::ranges::any_of(bytes, [](char byte) { return static_cast<unsigned char>(byte) > 0x7F; }))
    {
        fault(STEP, path + " has letters outside of ASCII, each byte of which reaches the agent as a letter of its own",
              "use ASCII alone, such as the xn-- form of a host name");
    }
    InputTextFile text(path);
    std::ptrdiff_t numWords = 0;
    for (std::string word; text >> word;)
    {
        ++numWords;
    }
    if (numWords > 4)
    {
        note(STEP, path + " has " + std::to_string(numWords) + " words; the program reads the first four");
    }
}

std::string reasonOf(platform::SearchRule rule)
{
    switch (rule)
    {
    case platform::SearchRule::ProgramFolder:
        return "in the program's folder";
    case platform::SearchRule::WorkingFolder:
        return "in the working folder";
    case platform::SearchRule::SystemFolder:
        return "in a folder of the system";
    case platform::SearchRule::PathVariable:
        return "in a folder of PATH";
    }
    return {};
}

void Doctor::examineAgent()
{
    constexpr const char* STEP = "agent";
    const std::vector<platform::SearchedFolder> folders = platform::searchedFolders(m_program);
    const auto found = std::ranges::find_if(
        folders, [](const auto& folder) { return isFile(folder.path + std::string(AGENT_FILE_NAME)); });
    if (found == folders.end())
    {
        fault(STEP,
              std::string(AGENT_FILE_NAME) + " is nowhere: not beside the program, nor in the working folder, "
                                             "nor in a folder of the system or of PATH",
              "install the agent beside the program");
        return;
    }
    const std::string path = found->path + std::string(AGENT_FILE_NAME);
    if (!mayRun(path))
    {
        faultOfUser(STEP, path + ", found " + reasonOf(found->rule) + ", may not be run", "let this user run it");
        return;
    }
    if (!isProgramFile(path))
    {
        fault(STEP, path + ", found " + reasonOf(found->rule) + ", is no program", "install the agent again");
        return;
    }
    const bool isProgramFolder = found->rule == platform::SearchRule::ProgramFolder;
    fine(STEP, path + ", found " + reasonOf(found->rule) +
                   (isProgramFolder ? ", which is searched before the working folder" : ""));
    std::error_code error;
    if (!isProgramFolder && !fs::equivalent(pathOf(found->path), pathOf(folderOf(m_program)), error))
    {
        fault(STEP,
              "the agent is not beside the program: whatever has its name " + reasonOf(found->rule) +
                  " is started elevated",
              "install the agent beside the program");
    }
    examineOwnership(STEP, path, "whoever may do that decides what runs elevated");
    examineWriters(STEP, found->path, "whoever may write there decides what runs elevated");
}

const char* nameOf(State state)
{
    switch (state)
    {
    case State::Fine:
        return "ok";
    case State::Note:
        return "note";
    case State::Fault:
        return "FAULT";
    }
    return "";
}

const char* colourOf(State state)
{
    switch (state)
    {
    case State::Fine:
        return "\033[32m";
    case State::Note:
        return "\033[33m";
    case State::Fault:
        return "\033[31m";
    }
    return "";
}

std::string padded(std::string text, std::size_t width)
{
    text.resize(std::max(text.size(), width), ' ');
    return text;
}

} // namespace

std::string Tool::programBesideTool()
{
    std::array<char, 4096> own{};
    platform::moduleFileName(own.data(), own.size());
    const std::string folder = folderOf(own.data());
    return folder + (folder.back() == platform::PATH_SEPARATOR ? "" : std::string(1, platform::PATH_SEPARATOR)) +
           PROGRAM;
}

std::string Tool::programNamed(const std::string& path)
{
    std::error_code error;
    const fs::path given = pathOf(path);
    const fs::path full = IS_WINDOWS ? fs::absolute(given, error) : fs::weakly_canonical(given, error);
    return error ? path : narrowOf(full);
}

std::vector<Tool::Diagnosis> Tool::diagnose(const std::string& programPath)
{
    Doctor doctor(programPath);
    doctor.examineProgram();
    doctor.examineWorkingFolder();
    doctor.examineTweakFiles();
    doctor.examineLog();
    doctor.examineSettings();
    doctor.examineAgent();
    return doctor.take();
}

bool Tool::writeDiagnoses(std::ostream& out, const std::vector<Diagnosis>& diagnoses, bool isJson, bool isColoured)
{
    const char* separator = "[";
    for (const Diagnosis& diagnosis : diagnoses)
    {
        if (isJson)
        {
            out << separator << "{\"step\":" << jsonText(diagnosis.step)
                << ",\"state\":" << jsonText(diagnosis.state == State::Fault ? "fault" : nameOf(diagnosis.state))
                << ",\"text\":" << jsonText(diagnosis.text) << ",\"remedy\":" << jsonText(diagnosis.remedy) << "}";
            separator = ",\n ";
            continue;
        }
        out << padded(diagnosis.step, 10) << (isColoured ? colourOf(diagnosis.state) : "")
            << padded(nameOf(diagnosis.state), 7) << (isColoured ? "\033[0m" : "") << visibleText(diagnosis.text)
            << '\n';
        if (!diagnosis.remedy.empty())
        {
            out << padded("", 17) << "remedy: " << diagnosis.remedy << '\n';
        }
    }
    if (isJson)
    {
        out << "]\n";
    }
    return std::ranges::any_of(diagnoses, [](const Diagnosis& diagnosis) { return diagnosis.state == State::Fault; });
}
