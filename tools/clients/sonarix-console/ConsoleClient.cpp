#include "tools/clients/sonarix-console/ConsoleClient.h"

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

/// Replaces the control characters of each line, and ends the last line.
std::string PrintableLines(const std::string& text)
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

/// Returns the path of the history file, or an empty string without HOME.
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

ConsoleClient::ConsoleClient(const std::string& path, bool json)
    : m_connection(path)
    , m_json(json)
    , m_printAsync([json](const std::string& text) { (json ? std::cout : std::cerr) << text << std::flush; })
{
}

bool ConsoleClient::Fail(const std::string& reason) const
{
    std::cerr << "sonarix-console: " << reason << '\n';
    return false;
}

bool ConsoleClient::Open()
{
    return m_connection.Socket().IsOpen() || m_connection.Open() ||
           Fail("no service at " + m_connection.Socket().Path() + ": " + std::strerror(errno) +
                "; is sonarix-service running?");
}

void ConsoleClient::PrintAsync(const std::string& line)
{
    const ConsoleMessages::Message message = ConsoleMessages::MessageFromLine(line);
    if (message.kind == ConsoleMessages::Message::Kind::ASYNC)
    {
        m_printAsync(m_json ? line + '\n' : PrintableLines(message.text));
    }
}

/// Returns false without a response; the reason has been printed.
bool ConsoleClient::Request(const std::string& request, std::string& response)
{
    if (!Open())
    {
        return false;
    }
    m_connection.Send(request + '\n');
    const auto until = LocalSocket::Clock::now() + kResponseTimeout;
    for (;;)
    {
        switch (m_connection.Wait(response, m_signals ? m_signals->Descriptor() : -1, until))
        {
        case LocalSocket::Event::RECEIVED:
            if (ConsoleMessages::MessageFromLine(response).kind == ConsoleMessages::Message::Kind::RESPONSE)
            {
                return true;
            }
            PrintAsync(response);
            break;
        case LocalSocket::Event::CLOSED:
            return Fail("the service went before it answered");
        case LocalSocket::Event::OTHER:
            if (TakeSignal())
            {
                m_connection.Close();
                std::cerr << '\n'; // after the ^C that the terminal has echoed
                return Fail("not waiting for the answer any more");
            }
            break;
        case LocalSocket::Event::TIMEOUT:
            m_connection.Close(); // a late response must not be taken for that to the next request
            return Fail("no answer within " + std::to_string(kResponseTimeout.count()) + " s");
        }
    }
}

/// Takes the pending signal. Returns true if it ends the wait for the response.
bool ConsoleClient::TakeSignal()
{
    const int number = m_signals->Take();
    m_isEnding = number == SIGTERM || number == SIGHUP;
    return m_isEnding || number == SIGINT;
}

ExitStatus ConsoleClient::Run(const std::string& line)
{
    const bool isHelp = IsHelp(line);
    std::string text;
    if (!Request(isHelp ? ConsoleMessages::HelpRequest(line.substr(4)) : ConsoleMessages::CommandRequest(line), text))
    {
        return EXIT_NO_SERVICE;
    }
    const ConsoleMessages::Message response = ConsoleMessages::MessageFromLine(text);
    if (m_json)
    {
        std::cout << text << '\n';
    }
    else if (!response.isOk)
    {
        std::cerr << PrintableLines(response.text);
    }
    else if (isHelp)
    {
        PrintHelp(response.commands);
    }
    else
    {
        std::cout << PrintableLines(response.text);
    }
    return std::cout.flush() && response.isOk ? EXIT_DONE : EXIT_ERROR_RESPONSE;
}

void ConsoleClient::PrintHelp(const std::vector<ConsoleMessages::Command>& commands) const
{
    if (commands.empty())
    {
        std::cout << "no command begins so\n";
    }
    else if (commands.size() == 1)
    {
        std::cout << PrintableLines(commands[0].words + ": " + commands[0].help + "\nUsage: " + commands[0].usage);
    }
    else
    {
        std::size_t width = 0;
        for (const ConsoleMessages::Command& command : commands)
        {
            width = std::max(width, command.words.size());
        }
        for (const ConsoleMessages::Command& command : commands)
        {
            std::cout << PrintableLines(command.words + std::string(width - command.words.size() + 2, ' ') +
                                        command.help);
        }
    }
}

ExitStatus ConsoleClient::RunStream()
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

ExitStatus ConsoleClient::LoadCommands()
{
    std::string text;
    if (!Request(ConsoleMessages::HelpRequest(""), text))
    {
        return EXIT_NO_SERVICE;
    }
    const ConsoleMessages::Message response = ConsoleMessages::MessageFromLine(text);
    m_commands = response.commands;
    if (!response.isOk) // too many consoles are open
    {
        std::cerr << PrintableLines(response.text);
    }
    return response.isOk ? EXIT_DONE : EXIT_ERROR_RESPONSE;
}

/// Prints the async lines that arrive while a line is edited.
void ConsoleClient::ReadAsync()
{
    for (std::string line;;)
    {
        switch (m_connection.Wait(line, -1, LocalSocket::Clock::now()))
        {
        case LocalSocket::Event::RECEIVED:
            PrintAsync(line);
            break;
        case LocalSocket::Event::CLOSED:
            m_printAsync("sonarix-console: the service has gone; the next command looks for it again\n");
            return;
        default:
            return;
        }
    }
}

ExitStatus ConsoleClient::RunTerminal()
{
    UseUtf8();
    m_signals.emplace({SIGINT, SIGTERM, SIGHUP, SIGWINCH, SIGCONT});
    const ExitStatus loaded = LoadCommands();
    if (loaded != EXIT_DONE)
    {
        return loaded;
    }

    Editor editor("sonarix-console", "> ", HistoryFile(), *m_signals,
                  {[this](const std::string& before) { return Completion::Of(m_commands, before); },
                   [this] { return m_connection.Socket().Descriptor(); }, [this] { ReadAsync(); }});
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
