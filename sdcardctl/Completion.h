#pragma once

#include <QStringList>

#include "Output.h"

namespace sdcardctl {

/// The shells' completion scripts put this word before the words to complete.
constexpr const char* kCompleteCommand = "__complete";

/// Prints the candidates for the last of the words, one on each line: the word, a tab, its meaning.
/// A line that begins with a tab stands for file names. The shell selects the candidates that begin
/// like the last word, because it knows its own quoting.
/// @param words of a command line up to the cursor, without the program's name
void printCompletion(const QStringList& words, Output& output);

} // namespace sdcardctl
