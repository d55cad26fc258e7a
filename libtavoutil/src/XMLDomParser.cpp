#include <tavoutil/XMLDomParser.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <expat.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tavoutil/SystemError.h>

#include "XMLDocument.h"

namespace {

struct Problem
{
    int error = IXMLDomParser::NoError;
    std::string what;
    int line = 0;
    int column = 0;
};

/// @return what is wrong, empty on success
Problem readFile(const char* fileName, std::string& content)
{
    // A pipe without a writer must not stop the start.
    const int file = open(fileName, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (file < 0) {
        return {IXMLDomParser::UnreadableFile, tavoutil::systemErrorText(errno).toStdString()};
    }
    Problem problem;
    struct stat status
    {};
    if (fstat(file, &status) == 0 && !S_ISREG(status.st_mode)) {
        problem = {IXMLDomParser::UnreadableFile, "not a regular file"};
    } else {
        // The files of /proc and /sys do not know their size before they are read.
        constexpr std::size_t kBlock = std::size_t{64} * 1024;
        ssize_t length = 0;
        do {
            const std::size_t size = content.size();
            content.resize(size + kBlock);
            length = read(file, content.data() + size, kBlock);
            if (length < 0) {
                problem = {IXMLDomParser::UnreadableFile,
                           tavoutil::systemErrorText(errno).toStdString()};
            }
            content.resize(size + static_cast<std::size_t>(length < 0 ? 0 : length));
        } while (length > 0 && content.size() <= IXMLDomParser::kMaxFileSize);
    }
    close(file);
    if (problem.error == IXMLDomParser::NoError && content.size() > IXMLDomParser::kMaxFileSize) {
        problem = {IXMLDomParser::FileTooLarge,
                   "larger than " + std::to_string(IXMLDomParser::kMaxFileSize) + " bytes"};
    }
    return problem;
}

/// A name as messages show it: the hostile ones can be megabytes long.
std::string quoted(const char* name)
{
    constexpr std::size_t kLongest = 64;
    std::string_view shown(name);
    if (shown.size() <= kLongest) {
        return "'" + std::string(shown) + "'";
    }
    constexpr auto isInsideCharacter = [](char byte) {
        return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
    };
    std::size_t end = kLongest;
    while (end > 0 && isInsideCharacter(shown[end])) {
        --end;
    }
    return "'" + std::string(shown.substr(0, end)) + "...'";
}

std::string place(int line, int column)
{
    return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

std::string_view trimmed(std::string_view text)
{
    constexpr std::string_view kWhiteSpace = " \t\r\n";
    const std::size_t first = text.find_first_not_of(kWhiteSpace);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kWhiteSpace) - first + 1);
}

} // namespace

/// Builds the tree while the text is read, so that neither depth nor size costs stack.
class IXMLDomParser::Builder
{
public:
    explicit Builder(const char* rootTagName)
        : mParser(XML_ParserCreate(nullptr), XML_ParserFree), mRootTagName(rootTagName)
    {
        XML_SetUserData(mParser.get(), this);
        XML_SetElementHandler(mParser.get(), startElement, endElement);
        XML_SetCharacterDataHandler(mParser.get(), characterData);
        XML_SetStartDoctypeDeclHandler(mParser.get(), startDocumentType);
    }

    Problem build(const std::string& content)
    {
        // In one piece: a token that grows over many pieces is scanned again with each of them.
        const XML_Status status =
            XML_Parse(mParser.get(), content.data(), static_cast<int>(content.size()), XML_TRUE);
        if (status != XML_STATUS_OK && mProblem.error == NoError) {
            mProblem = syntaxProblem(content);
        }
        return mProblem;
    }

    /// The document of a successful build().
    std::shared_ptr<const ITCXMLNode::Document> takeDocument()
    {
        mDocument->listChildren();
        return std::move(mDocument);
    }

private:
    struct OpenElement
    {
        std::uint32_t index;
        std::string text;
    };

    static void XMLCALL startElement(void* self, const XML_Char* name, const XML_Char** attributes)
    {
        static_cast<Builder*>(self)->open(name, attributes);
    }

    static void XMLCALL endElement(void* self, const XML_Char* /*name*/)
    {
        static_cast<Builder*>(self)->close();
    }

    static void XMLCALL characterData(void* self, const XML_Char* text, int length)
    {
        auto* const builder = static_cast<Builder*>(self);
        if (builder->mProblem.error == NoError) {
            builder->mOpen.back().text.append(text, static_cast<std::size_t>(length));
        }
    }

    static void XMLCALL startDocumentType(void* self, const XML_Char* /*name*/,
                                          const XML_Char* systemId, const XML_Char* publicId,
                                          int hasInternalSubset)
    {
        if (systemId != nullptr || publicId != nullptr || hasInternalSubset != 0) {
            static_cast<Builder*>(self)->refuse(
                DocumentTypeRefused, "document type with declarations or a reference to a file");
        }
    }

    void open(const char* name, const char** attributes)
    {
        if (mProblem.error != NoError) {
            return;
        }
        if (mOpen.empty() && std::strcmp(name, mRootTagName) != 0) {
            refuse(UnexpectedRoot,
                   "root element " + quoted(name) + " instead of " + quoted(mRootTagName));
            return;
        }
        if (mOpen.size() == kMaxDepth) {
            refuse(TooDeeplyNested, "elements nested deeper than " + std::to_string(kMaxDepth));
            return;
        }
        ITCXMLNode::Document::Element element;
        element.name = mDocument->addText(name, std::strlen(name));
        element.firstAttribute = static_cast<std::uint32_t>(mDocument->attributes.size());
        for (; *attributes != nullptr; attributes += 2) {
            const std::uint32_t key = mDocument->addText(attributes[0], std::strlen(attributes[0]));
            const std::uint32_t value =
                mDocument->addText(attributes[1], std::strlen(attributes[1]));
            mDocument->attributes.push_back({key, value});
            ++element.attributeCount;
        }
        if (!mOpen.empty()) {
            element.parent = mOpen.back().index;
            ++mDocument->elements[element.parent].childCount;
        }
        element.line = line();
        element.column = column();
        mOpen.push_back({static_cast<std::uint32_t>(mDocument->elements.size()), {}});
        mDocument->elements.push_back(element);
    }

    void close()
    {
        if (mProblem.error != NoError) {
            return;
        }
        const std::string_view text = trimmed(mOpen.back().text);
        if (!text.empty()) {
            mDocument->elements[mOpen.back().index].text =
                mDocument->addText(text.data(), text.size());
        }
        mOpen.pop_back();
    }

    void refuse(Error error, const std::string& what)
    {
        mProblem = {error, what + " at " + place(line(), column()), line(), column()};
        XML_StopParser(mParser.get(), XML_FALSE);
    }

    Problem syntaxProblem(const std::string& content) const
    {
        const XML_Error error = XML_GetErrorCode(mParser.get());
        if (error == XML_ERROR_NO_ELEMENTS && mOpen.empty()) {
            return {NotWellFormed, "no root element", line(), column()};
        }
        if (error == XML_ERROR_NO_ELEMENTS) {
            const auto& unclosed = mDocument->elements[mOpen.back().index];
            return {NotWellFormed, openElement() + " is not closed", unclosed.line,
                    unclosed.column};
        }
        std::string what = XML_ErrorString(error);
        const auto offset = static_cast<std::size_t>(XML_GetCurrentByteIndex(mParser.get()));
        if (error == XML_ERROR_INVALID_TOKEN && offset < content.size()) {
            what += ", byte " + hexadecimal(content[offset]);
        }
        what += " at " + place(line(), column());
        if (error == XML_ERROR_TAG_MISMATCH) {
            what += " where " + openElement() + " is open";
        }
        return {NotWellFormed, what, line(), column()};
    }

    std::string openElement() const
    {
        const auto& element = mDocument->elements[mOpen.back().index];
        return "element " + quoted(mDocument->textAt(element.name)) + " of " +
               place(element.line, element.column);
    }

    static std::string hexadecimal(char byte)
    {
        constexpr std::string_view kDigits = "0123456789abcdef";
        const auto value = static_cast<unsigned char>(byte);
        return {'0', 'x', kDigits[value / 16U], kDigits[value % 16U]};
    }

    int line() const { return static_cast<int>(XML_GetCurrentLineNumber(mParser.get())); }
    int column() const { return static_cast<int>(XML_GetCurrentColumnNumber(mParser.get())) + 1; }

    std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> mParser;
    const char* mRootTagName;
    std::shared_ptr<ITCXMLNode::Document> mDocument = std::make_shared<ITCXMLNode::Document>();
    std::vector<OpenElement> mOpen;
    Problem mProblem;
};

ITCXMLNode IXMLDomParser::parseFile(const char* fileName, const char* rootTagName,
                                    ITCXMLResults& results)
{
    std::string content;
    Builder builder(rootTagName);
    Problem problem = readFile(fileName, content);
    if (problem.error == NoError) {
        problem = builder.build(content);
    }
    mError = problem.error;
    mMessage = std::move(problem.what);
    results = {problem.error, problem.line, problem.column};
    return mError == NoError ? ITCXMLNode(builder.takeDocument(), 0) : ITCXMLNode();
}

const char* IXMLDomParser::getErrorMessage(int errorCode) const
{
    if (errorCode == NoError) {
        return "no error";
    }
    return errorCode == mError ? mMessage.c_str() : "unknown error";
}
