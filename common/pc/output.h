// SPDX-License-Identifier: MIT
// common/pc/output.h: what a program on the PC prints. Only data goes to standard output; notes, questions,
// progress and errors go to standard error. With --json an error is data too: an object instead of the
// result. Every thread may call this.
#pragma once

#include "common/pc/verb_error.h"

#include <nlohmann/json.hpp>

#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ledboard
{

struct OutputOptions {
    bool json = false;  // one JSON document instead of text; errors too
    bool quiet = false; // no notes, no progress
};

class Output
{
public:
    // `program` stands before errors and warnings. Checks the terminal and NO_COLOR here, once.
    Output(const char *program, const OutputOptions &options);

    bool Json() const { return options_.json; }
    bool Quiet() const { return options_.quiet; }
    bool ErrorIsTerminal() const { return errorIsTerminal_; }

    void Print(std::string_view text);              // data, unchanged
    void PrintJson(const nlohmann::json &document); // data, on one line
    void Note(std::string_view line);               // not with --quiet, not with --json
    void Warn(std::string_view line);               // always
    void Error(const VerbError &error);
    void Draw(std::string_view text); // to standard error, unchanged: for progress bars and questions

    // `text` as a heading: bold if standard output is a terminal with colours.
    std::string Heading(std::string_view text) const;

    // Flushes standard output. Throws VerbError if not all data could be written.
    void Finish();

private:
    void ErrorLine(std::string_view text);

    std::mutex mutex_;
    const char *program_;
    OutputOptions options_;
    bool colour_;
    bool errorIsTerminal_;
    int writeError_ = 0;
};

// The document on one line with its newline; bytes that are not UTF-8 become U+FFFD.
std::string JsonLine(const nlohmann::json &document);

// A table with columns as wide as their widest cell. Cells are valid UTF-8 without control characters.
class Table
{
public:
    explicit Table(std::vector<std::string> headings) : headings_(std::move(headings)) {}
    void Add(std::vector<std::string> row) { rows_.push_back(std::move(row)); } // one cell per heading
    std::string Render(const Output &output) const;

private:
    std::vector<std::string> headings_;
    std::vector<std::vector<std::string>> rows_;
};

// One line "name  value" per field, the values in one column.
std::string RenderFields(const std::vector<std::pair<std::string, std::string>> &fields);

} // namespace ledboard
