// SPDX-License-Identifier: MIT
#include "common/pc/output.h"

#include "common/pc/text.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace ledboard
{

namespace
{

constexpr std::size_t kColumnGap = 2;

void AppendPadded(std::string &line, const std::string &cell, std::size_t width)
{
    line += cell;
    line.append(width - std::min(width, DisplayWidth(cell)), ' ');
}

} // namespace

Output::Output(const char *program, const OutputOptions &options)
    : program_(program), options_(options), errorIsTerminal_(isatty(STDERR_FILENO) == 1)
{
    const char *noColour = std::getenv("NO_COLOR");
    const char *terminal = std::getenv("TERM");
    colour_ = isatty(STDOUT_FILENO) == 1 && (noColour == nullptr || *noColour == '\0') &&
              terminal != nullptr && std::string_view(terminal) != "dumb";
}

void Output::Print(std::string_view text)
{
    const std::lock_guard lock(mutex_);
    // Finish reports the error: a verb goes on with its boards even if nobody reads its output.
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size())
        writeError_ = errno;
}

void Output::PrintJson(const nlohmann::json &document)
{
    Print(JsonLine(document));
}

void Output::Note(std::string_view line)
{
    if (!options_.quiet && !options_.json)
        ErrorLine(line);
}

void Output::Warn(std::string_view line)
{
    ErrorLine(std::string(program_).append(": warning: ").append(line));
}

void Output::Error(const VerbError &error)
{
    if (options_.json)
        PrintJson({{"error", ErrorJson(error)}});
    else
        ErrorLine(std::string(program_) + ": " + ForTerminal(error.what()));
}

void Output::Draw(std::string_view text)
{
    const std::lock_guard lock(mutex_);
    std::fwrite(text.data(), 1, text.size(), stderr);
    // A bar and a question end without a newline.
    std::fflush(stderr);
}

std::string Output::Heading(std::string_view text) const
{
    return colour_ ? std::string("\x1b[1m").append(text).append("\x1b[0m") : std::string(text);
}

void Output::Finish()
{
    const std::lock_guard lock(mutex_);
    if (std::fflush(stdout) != 0)
        writeError_ = errno;
    if (writeError_ != 0)
        throw SystemError("cannot write the result", writeError_);
}

void Output::ErrorLine(std::string_view text)
{
    Draw(std::string(text) + '\n');
}

std::string JsonLine(const nlohmann::json &document)
{
    constexpr int kOneLine = -1;
    // The default would throw for a text that is not UTF-8.
    return document.dump(kOneLine, ' ', false, nlohmann::json::error_handler_t::replace) + '\n';
}

std::string Table::Render(const Output &output) const
{
    std::vector<std::size_t> widths;
    for (std::size_t column = 0; column < headings_.size(); ++column) {
        std::size_t width = DisplayWidth(headings_[column]);
        for (const auto &row : rows_)
            width = std::max(width, DisplayWidth(row.at(column)));
        widths.push_back(width + kColumnGap);
    }
    widths.back() = 0; // no padding after the last column
    const auto line = [&](const std::vector<std::string> &cells) {
        std::string text;
        for (std::size_t column = 0; column < cells.size(); ++column)
            AppendPadded(text, cells[column], widths[column]);
        return text;
    };
    std::string text = output.Heading(line(headings_)) + '\n';
    for (const auto &row : rows_)
        text += line(row) + '\n';
    return text;
}

std::string RenderFields(const std::vector<std::pair<std::string, std::string>> &fields)
{
    std::size_t width = 0;
    for (const auto &[name, value] : fields)
        width = std::max(width, DisplayWidth(name) + kColumnGap);
    std::string text;
    for (const auto &[name, value] : fields) {
        AppendPadded(text, name, width);
        text += value + '\n';
    }
    return text;
}

} // namespace ledboard
