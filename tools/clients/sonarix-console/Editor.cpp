#include "tools/clients/sonarix-console/Editor.h"

#include "tools/clients/options/SignalDescriptor.h"

#include <histedit.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <poll.h>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

namespace
{

/// Returns the number of terminal columns that a text needs.
std::size_t Width(std::string_view text)
{
    std::size_t width = 0;
    std::mbstate_t state{};
    while (!text.empty())
    {
        wchar_t letter = 0;
        const std::size_t size = std::mbrtowc(&letter, text.data(), text.size(), &state);
        const bool isValid = size != 0 && size <= text.size();
        const int columns = isValid ? wcwidth(letter) : 1;
        width += columns > 0 ? static_cast<std::size_t>(columns) : 0U;
        text.remove_prefix(isValid ? size : 1U);
        state = isValid ? state : std::mbstate_t{};
    }
    return width;
}

std::size_t Columns()
{
    winsize size{};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80U;
}

/// True if the terminal supports cursor movement.
bool IsSmart()
{
    const char* const name = std::getenv("TERM");
    return name != nullptr && *name != '\0' && std::strcmp(name, "dumb") != 0;
}

} // namespace

struct Editor::Impl
{
    static Impl& Of(EditLine* line)
    {
        void* self = nullptr;
        el_get(line, EL_CLIENTDATA, &self);
        return *static_cast<Impl*>(self);
    }

    static const char* Prompt(EditLine* line)
    {
        return Of(line).prompt.c_str();
    }

    static int GetLetter(EditLine* line, wchar_t* letter)
    {
        return Of(line).ReadLetter(letter);
    }

    static unsigned char CompleteLine(EditLine* line, int /*key*/)
    {
        return Of(line).Complete();
    }

    std::string Before() const
    {
        const LineInfo* const info = el_line(edit);
        return {info->buffer, info->cursor};
    }

    unsigned char Complete()
    {
        const Completion completion = hooks.complete(Before());
        if (!completion.addition.empty())
        {
            return el_insertstr(edit, completion.addition.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
        }
        if (completion.offered.size() < 2)
        {
            return CC_REFRESH_BEEP;
        }
        std::string offered;
        for (const std::string& word : completion.offered)
        {
            offered += (offered.empty() ? "" : "  ") + word;
        }
        PrintAbove(offered + '\n');
        return CC_NORM;
    }

    /// Returns 1 and a letter; 0 at the end of input and when a signal ends the line.
    int ReadLetter(wchar_t* letter)
    {
        std::mbstate_t state{};
        for (;;)
        {
            std::array<pollfd, 3> waiting = {
                {{STDIN_FILENO, POLLIN, 0}, {signals.Descriptor(), POLLIN, 0}, {hooks.other(), POLLIN, 0}}};
            if (poll(waiting.data(), waiting.size(), -1) < 0 && errno != EINTR)
            {
                return 0;
            }
            if (waiting[1].revents != 0 && !TakeSignal())
            {
                return 0;
            }
            if (waiting[2].revents != 0)
            {
                hooks.readable();
            }
            if (waiting[0].revents == 0)
            {
                continue;
            }
            char byte = 0;
            if (read(STDIN_FILENO, &byte, 1) != 1)
            {
                return 0;
            }
            const std::size_t size = std::mbrtowc(letter, &byte, 1, &state);
            if (size == static_cast<std::size_t>(-1))
            {
                state = {}; // invalid in this character set: skipped
            }
            else if (size != static_cast<std::size_t>(-2))
            {
                return 1;
            }
        }
    }

    /// Returns false if the signal ends the line.
    bool TakeSignal()
    {
        switch (signals.Take())
        {
        case 0:
            return true;
        case SIGWINCH:
            el_resize(edit);
            return true;
        case SIGCONT: // the shell may have changed the terminal modes meanwhile
            el_set(edit, EL_PREP_TERM, 1);
            el_set(edit, EL_REFRESH);
            return true;
        case SIGINT:
            isAbandoned = true;
            return false;
        default:
            return false;
        }
    }

    void PrintAbove(const std::string& text)
    {
        if (!isReading)
        {
            std::fputs(text.c_str(), stdout);
            std::fflush(stdout);
            return;
        }
        const std::size_t row = (Width(prompt) + Width(Before())) / Columns();
        std::string erasure = "\r";
        if (isSmart)
        {
            erasure += row > 0 ? "\033[" + std::to_string(row) + 'A' : "";
            erasure += "\033[J";
        }
        else
        {
            erasure += '\n';
        }
        std::fputs((erasure + text).c_str(), stdout);
        std::fflush(stdout);
        el_set(edit, EL_REFRESH);
    }

    Impl(const std::string& givenPrompt, const std::string& givenFile, SignalDescriptor& givenSignals, Hooks givenHooks)
        : prompt(givenPrompt)
        , historyFile(givenFile)
        , signals(givenSignals)
        , hooks(std::move(givenHooks))
    {
    }

    const std::string prompt;
    const std::string historyFile;
    SignalDescriptor& signals;
    const Hooks hooks;
    const bool isSmart = IsSmart();
    EditLine* edit = nullptr;
    History* history = nullptr;
    bool isReading = false;
    bool isAbandoned = false;
};

Editor::Editor(const std::string& program, const std::string& prompt, const std::string& historyFile,
               SignalDescriptor& signals, Hooks hooks)
    : m_impl(std::make_unique<Impl>(prompt, historyFile, signals, std::move(hooks)))
{
    m_impl->history = history_init();
    HistEvent event{};
    history(m_impl->history, &event, H_SETSIZE, kHistoryLines);
    history(m_impl->history, &event, H_SETUNIQUE, 1);
    if (!historyFile.empty())
    {
        history(m_impl->history, &event, H_LOAD, historyFile.c_str());
    }
    m_impl->edit = el_init(program.c_str(), stdin, stdout, stderr);
    EditLine* const edit = m_impl->edit;
    el_set(edit, EL_CLIENTDATA, m_impl.get());
    el_set(edit, EL_PROMPT, &Impl::Prompt);
    el_set(edit, EL_EDITOR, "emacs");
    el_set(edit, EL_HIST, history, m_impl->history);
    el_set(edit, EL_GETCFN, &Impl::GetLetter);
    el_set(edit, EL_ADDFN, "complete-command", "Completes a command", &Impl::CompleteLine);
    el_set(edit, EL_BIND, "\t", "complete-command", nullptr);
    el_set(edit, EL_BIND, "^R", "em-inc-search-prev", nullptr);
    el_source(edit, nullptr); // the user's ~/.editrc
}

Editor::~Editor()
{
    if (!m_impl->historyFile.empty())
    {
        HistEvent event{};
        history(m_impl->history, &event, H_SAVE, m_impl->historyFile.c_str());
    }
    el_end(m_impl->edit);
    history_end(m_impl->history);
}

Editor::Result Editor::Read(std::string& line)
{
    m_impl->isAbandoned = false;
    el_resize(m_impl->edit);               // SIGWINCH is not processed while a command runs
    el_set(m_impl->edit, EL_PREP_TERM, 1); // before the prompt, so that the terminal echoes no typed letter twice
    m_impl->isReading = true;
    int count = 0;
    const char* const text = el_gets(m_impl->edit, &count);
    m_impl->isReading = false;
    if (m_impl->isAbandoned)
    {
        std::puts("^C");
        return Result::ABANDONED;
    }
    if (text == nullptr || count <= 0)
    {
        std::puts("");
        return Result::END;
    }
    line.assign(text, static_cast<std::size_t>(count));
    line.erase(line.find_last_not_of("\r\n") + 1);
    if (line.find_first_not_of(" \t") != std::string::npos)
    {
        HistEvent event{};
        history(m_impl->history, &event, H_ENTER, line.c_str());
    }
    return Result::LINE;
}

void Editor::Print(const std::string& text)
{
    m_impl->PrintAbove(text);
}
