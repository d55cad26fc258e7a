#include "Completion.h"

#include <algorithm>

#include <QHash>

#include "CardStatus.h"
#include "Commands.h"
#include "LayoutNames.h"

namespace sdcardctl {

namespace {

void offer(Output& output, const QString& word, const char* meaning = "")
{
    output.line(word + "\t" + meaning);
}

void offerFiles(Output& output)
{
    offer(output, QString(), "file");
}

// The option that takes a value and that "--name" or "--name=value" starts; null for other words.
const Option* optionWithValue(const QString& word)
{
    const QString name = word.section('=', 0, 0);
    const auto* const found =
        std::find_if(kOptions.begin(), kOptions.end(), [&name](const Option& option) {
            return *option.value != '\0' &&
                   name == QLatin1String("--") + QLatin1String(option.name);
        });
    return found == kOptions.end() ? nullptr : found;
}

// The command line before the cursor.
struct Typed
{
    QStringList words;              ///< the command and its arguments
    QHash<QString, QString> values; ///< of options
    const Option* open = nullptr;   ///< the option whose value comes next
    bool isAfterOptions = false;    ///< after "--"
};

Typed read(const QStringList& before)
{
    Typed typed;
    for (const QString& word : before) {
        if (typed.open != nullptr) {
            typed.values.insert(typed.open->name, word);
            typed.open = nullptr;
        } else if (typed.isAfterOptions || !word.startsWith('-')) {
            typed.words.append(word);
        } else if (word == "--") {
            typed.isAfterOptions = true;
        } else if (const Option* const option = optionWithValue(word)) {
            if (word.contains('=')) {
                typed.values.insert(option->name, word.section('=', 1));
            } else {
                typed.open = option;
            }
        }
    }
    return typed;
}

void offerOptions(const Command* command, Output& output)
{
    for (const Option& option : kOptions) {
        if (command != nullptr ? command->takes(option) : option.flag == NoOption) {
            offer(output, QLatin1String("--") + QLatin1String(option.name), option.description);
        }
    }
}

void offerCommands(Output& output)
{
    for (const Command& command : commands()) {
        offer(output, command.name, command.description);
    }
}

void offerDirectories(const Typed& typed, bool onlyWatched, Output& output)
{
    const auto bus = connectToBus(typed.values.value("bus"));
    if (!bus) {
        return;
    }
    const auto identifiers =
        knownIdentifiers(CardService(*bus), typed.values.value("config"), onlyWatched);
    if (identifiers) {
        for (const QString& identifier : *identifiers) {
            offer(output, identifier);
        }
    }
}

void offerArgument(Argument argument, const Typed& typed, Output& output)
{
    switch (argument) {
    case Argument::None:
        break;
    case Argument::Directory:
    case Argument::WatchedDirectory:
        offerDirectories(typed, argument == Argument::WatchedDirectory, output);
        break;
    case Argument::State:
        for (const PublishedValue& state : kStates) {
            offer(output, state.word, state.meaning);
        }
        break;
    case Argument::File:
        offerFiles(output);
        break;
    case Argument::Command:
        offerCommands(output);
        break;
    }
}

} // namespace

void printCompletion(const QStringList& words, Output& output)
{
    const QString current = words.isEmpty() ? QString() : words.last();
    const Typed typed = read(words.mid(0, words.size() - 1));
    if (typed.open != nullptr) {
        if (typed.open->flag == ConfigOption) {
            offerFiles(output);
        }
        return;
    }
    const Command* const command = commandNamed(typed.words.value(0));
    if (current.startsWith('-') && !typed.isAfterOptions) {
        offerOptions(command, output);
    } else if (typed.words.isEmpty()) {
        offerCommands(output);
    } else if (command != nullptr && typed.words.size() == 1) {
        offerArgument(command->argument, typed, output);
    }
}

} // namespace sdcardctl
