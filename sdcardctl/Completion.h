#pragma once

#include <QStringList>

#include "Output.h"

namespace sdcardctl {

/// The word before which the shells' completions put what is to be completed.
constexpr const char* kCompleteCommand = "__complete";

/// Prints what the last of the words may be, one candidate a line: the word, a tab, what it means.
/// A line that begins with a tab stands for the names of files. Whether a candidate begins like the
/// last word is left to the shell, which knows its quotes.
/// @param words of a command line up to the cursor, without the program's name
void printCompletion(const QStringList& words, Output& output);

} // namespace sdcardctl
