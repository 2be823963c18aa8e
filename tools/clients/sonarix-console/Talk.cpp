#include "tools/clients/sonarix-console/Talk.h"

#include "tools/clients/options/Printable.h"
#include "tools/clients/sonarix-console/Completion.h"
#include "tools/clients/sonarix-console/Editor.h"

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <langinfo.h>

namespace
{

/// Line by line without what a terminal would obey, and with an end.
std::string ForPerson(const std::string& text)
{
    std::string printable;
    for (std::size_t begin = 0; begin < text.size();)
    {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        printable += Printable(text.substr(begin, end - begin)) + '\n';
        begin = end + 1;
    }
    return printable;
}

bool IsHelp(const std::string& line)
{
    return line == "help" || line.starts_with("help ");
}

std::string Trimmed(const std::string& line)
{
    const std::size_t begin = line.find_first_not_of(" \t\r");
    return begin == std::string::npos ? std::string() : line.substr(begin, line.find_last_not_of(" \t\r") - begin + 1);
}

/// Where the lines of earlier days are; empty without a home.
std::string HistoryFile()
{
    const char* const home = std::getenv("HOME");
    return home != nullptr && *home != '\0' ? std::string(home) + "/.sonarix_console_history" : std::string();
}

void UseUtf8()
{
    if (std::setlocale(LC_CTYPE, "") == nullptr || std::strcmp(nl_langinfo(CODESET), "UTF-8") != 0)
    {
        std::setlocale(LC_CTYPE, "C.UTF-8");
    }
}

} // namespace

Talk::Talk(const std::string& path, bool json)
    : m_link(path)
    , m_json(json)
    , m_printAsync([json](const std::string& text) { (json ? std::cout : std::cerr) << text << std::flush; })
{
}

bool Talk::Say(const std::string& problem) const
{
    std::cerr << "sonarix-console: " << problem << '\n';
    return false;
}

bool Talk::Open()
{
    return m_link.IsOpen() || m_link.Open() ||
           Say("no service at " + m_link.Path() + ": " + std::strerror(errno) + "; is sonarix-service running?");
}

void Talk::ShowAsync(const std::string& text)
{
    const Wire::Line line = Wire::Read(text);
    if (line.kind == Wire::Line::Kind::ASYNC)
    {
        m_printAsync(m_json ? text + '\n' : ForPerson(line.text));
    }
}

/// False, with its reason told, without an answer.
bool Talk::Ask(const std::string& request, std::string& answer)
{
    if (!Open())
    {
        return false;
    }
    m_link.Send(request);
    for (;;)
    {
        switch (m_link.Wait(answer, m_signals ? m_signals->Descriptor() : -1, kAnswerLimit))
        {
        case Link::Event::LINE:
            if (Wire::Read(answer).kind == Wire::Line::Kind::ANSWER)
            {
                return true;
            }
            ShowAsync(answer);
            break;
        case Link::Event::CLOSED:
            return Say("the service went before it answered");
        case Link::Event::OTHER:
            if (IsGivenUp())
            {
                m_link.Shut();
                std::cerr << '\n'; // behind the terminal's own ^C
                return Say("not waiting for the answer any more");
            }
            break;
        case Link::Event::TIME:
            m_link.Shut(); // an answer that comes later is not that to the next question
            return Say("no answer within " + std::to_string(kAnswerLimit.count()) + " s");
        }
    }
}

bool Talk::IsGivenUp()
{
    const int number = m_signals->Take();
    m_isEnding = number == SIGTERM || number == SIGHUP;
    return m_isEnding || number == SIGINT;
}

ExitStatus Talk::Run(const std::string& line)
{
    const bool isHelp = IsHelp(line);
    std::string text;
    if (!Ask(isHelp ? Wire::AskForHelp(line.substr(4)) : Wire::AskToRun(line), text))
    {
        return EXIT_NO_SERVICE;
    }
    const Wire::Line answer = Wire::Read(text);
    if (m_json)
    {
        std::cout << text << '\n';
    }
    else if (!answer.isOk)
    {
        std::cerr << ForPerson(answer.text);
    }
    else if (isHelp)
    {
        ShowHelp(answer.commands);
    }
    else
    {
        std::cout << ForPerson(answer.text);
    }
    return std::cout.flush() && answer.isOk ? EXIT_DONE : EXIT_ERROR_ANSWER;
}

void Talk::ShowHelp(const std::vector<Wire::Command>& commands) const
{
    if (commands.empty())
    {
        std::cout << "no command begins so\n";
    }
    else if (commands.size() == 1)
    {
        std::cout << ForPerson(commands[0].words + ": " + commands[0].help + "\nUsage: " + commands[0].usage);
    }
    else
    {
        std::size_t width = 0;
        for (const Wire::Command& command : commands)
        {
            width = std::max(width, command.words.size());
        }
        for (const Wire::Command& command : commands)
        {
            std::cout << ForPerson(command.words + std::string(width - command.words.size() + 2, ' ') + command.help);
        }
    }
}

ExitStatus Talk::RunStream()
{
    ExitStatus worst = EXIT_DONE;
    for (std::string line; worst != EXIT_NO_SERVICE && std::getline(std::cin, line);)
    {
        line = Trimmed(line);
        if (!line.empty() && !line.starts_with("#"))
        {
            worst = std::max(worst, Run(line));
        }
    }
    return worst;
}

ExitStatus Talk::Learn()
{
    std::string text;
    if (!Ask(Wire::AskForHelp(""), text))
    {
        return EXIT_NO_SERVICE;
    }
    const Wire::Line answer = Wire::Read(text);
    m_commands = answer.commands;
    if (!answer.isOk) // there are too many of us
    {
        std::cerr << ForPerson(answer.text);
    }
    return answer.isOk ? EXIT_DONE : EXIT_ERROR_ANSWER;
}

/// What the service sends while a line is typed.
void Talk::TakeUnasked()
{
    for (std::string line;;)
    {
        switch (m_link.Wait(line, -1, std::chrono::milliseconds(0)))
        {
        case Link::Event::LINE:
            ShowAsync(line);
            break;
        case Link::Event::CLOSED:
            m_printAsync("sonarix-console: the service has gone; the next command looks for it again\n");
            return;
        default:
            return;
        }
    }
}

ExitStatus Talk::RunTerminal()
{
    UseUtf8();
    m_signals.emplace();
    const ExitStatus learnt = Learn();
    if (learnt != EXIT_DONE)
    {
        return learnt;
    }

    Editor editor("sonarix-console", "> ", HistoryFile(), *m_signals,
                  {[this](const std::string& before) { return Completion::Of(m_commands, before); },
                   [this] { return m_link.Descriptor(); }, [this] { TakeUnasked(); }});
    m_printAsync = [&editor](const std::string& text) { editor.Print(text); };
    editor.Print("\"help\" lists the commands, Tab completes them, Ctrl-D ends.\n");
    std::string line;
    while (!m_isEnding)
    {
        const Editor::Result result = editor.Read(line);
        line = result == Editor::Result::LINE ? Trimmed(line) : std::string();
        m_isEnding = result == Editor::Result::END || line == "quit" || line == "exit";
        if (!m_isEnding && !line.empty())
        {
            Run(line);
        }
    }
    return EXIT_DONE;
}
