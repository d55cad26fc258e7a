#include <tavoutil/XMLDomParser.h>

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>

#include <QFile>
#include <QTextCodec>
#include <QXmlStreamReader>

#include <tavoutil/SystemError.h>

struct ITCXMLNode::Element
{
    QByteArray name;
    QByteArray text;
    std::vector<std::pair<QByteArray, QByteArray>> attributes;
    std::vector<Element> children;
    int line = 0;
    int column = 0;
};

namespace {

struct Problem
{
    int error = IXMLDomParser::NoError;
    QByteArray what = "no error";
    int line = 0;
    int column = 0;
};

Problem readFile(const char* fileName, QByteArray& content)
{
    // A pipe without a writer must not block the start.
    const int descriptor = open(fileName, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0) {
        return {IXMLDomParser::UnreadableFile, tavoutil::systemErrorText(errno)};
    }
    QFile file;
    file.open(descriptor, QIODevice::ReadOnly | QIODevice::Unbuffered,
              QFileDevice::AutoCloseHandle);
    struct stat status
    {};
    if (fstat(descriptor, &status) == 0 && !S_ISREG(status.st_mode)) {
        return {IXMLDomParser::UnreadableFile, "not a regular file"};
    }
    content = file.read(IXMLDomParser::kMaxFileSize + 1);
    if (file.error() != QFileDevice::NoError) {
        return {IXMLDomParser::UnreadableFile, file.errorString().toUtf8()};
    }
    if (content.size() > IXMLDomParser::kMaxFileSize) {
        return {IXMLDomParser::FileTooLarge,
                "larger than " + QByteArray::number(IXMLDomParser::kMaxFileSize) + " bytes"};
    }
    return {};
}

/// The document's characters, with NUL for invalid ones, which the reader's own decoding would
/// accept.
QString decoded(const QByteArray& content)
{
    QXmlStreamReader reader(content);
    reader.readNext();
    QTextCodec* codec = QTextCodec::codecForName(reader.documentEncoding().toUtf8());
    if (codec == nullptr) {
        codec = QTextCodec::codecForName("UTF-8");
    }
    QTextCodec::ConverterState state(QTextCodec::ConvertInvalidToNull);
    const QString text = QTextCodec::codecForUtfText(content, codec)
                             ->toUnicode(content.constData(), content.size(), &state);
    return state.remainingChars == 0 ? text : text + QChar::Null;
}

} // namespace

/// Builds the tree of one document. The reader itself limits the length of names and refuses
/// entities that are not declared.
class IXMLDomParser::Builder
{
public:
    explicit Builder(const QString& text) : mText(text), mReader(text)
    {
        mReader.setNamespaceProcessing(false);
    }

    /// @param document receives the root element as its only child
    Problem build(const char* rootTagName, ITCXMLNode::Element& document)
    {
        if (const int offset = mText.indexOf(QChar::Null); offset >= 0) {
            moveTo(offset);
            return problem(NotWellFormed, "NUL byte or broken encoding");
        }
        // An element's address is stable while it is open: siblings are added after its end.
        std::vector<ITCXMLNode::Element*> open{&document};
        while (!mReader.atEnd()) {
            switch (mReader.readNext()) {
            case QXmlStreamReader::DTD:
                checkDocumentType();
                break;
            case QXmlStreamReader::StartElement:
                open.back()->children.push_back(startedElement());
                open.push_back(&open.back()->children.back());
                checkElement(open.back()->name, open.size() - 1, rootTagName);
                break;
            case QXmlStreamReader::Characters:
                open.back()->text += mReader.text().toUtf8();
                break;
            case QXmlStreamReader::EndElement:
                open.back()->text = open.back()->text.trimmed();
                open.pop_back();
                break;
            default:
                break;
            }
        }
        if (!mReader.hasError()) {
            return {};
        }
        if (mError == NotWellFormed) {
            moveTo(static_cast<int>(mReader.characterOffset()) - 1);
        }
        QByteArray what = mReader.errorString().toUtf8();
        if (what.endsWith('.')) {
            what.chop(1);
        }
        return problem(mError, what);
    }

private:
    Problem problem(int error, const QByteArray& what) const
    {
        return {error,
                what + " at line " + QByteArray::number(mLine) + ", column " +
                    QByteArray::number(column()),
                mLine, column()};
    }

    void refuse(Error error, const QString& what)
    {
        mError = error;
        mReader.raiseError(what);
    }

    void checkDocumentType()
    {
        if (!mReader.dtdSystemId().isEmpty() || mReader.text().contains('[')) {
            moveTo(static_cast<int>(mReader.characterOffset()) - 1);
            refuse(DocumentTypeRefused, "document type with declarations or a reference to a file");
        }
    }

    void checkElement(const QByteArray& name, std::size_t depth, const char* rootTagName)
    {
        if (depth == 1 && name != rootTagName) {
            refuse(UnexpectedRoot, QString::fromUtf8("root element '" + name + "' instead of '" +
                                                     rootTagName + "'"));
        } else if (depth > kMaxDepth) {
            refuse(TooDeeplyNested, "elements nested deeper than " + QString::number(kMaxDepth));
        }
    }

    ITCXMLNode::Element startedElement()
    {
        // A tag contains no other '<', and the reader is at the end of this one.
        moveTo(mText.lastIndexOf('<', static_cast<int>(mReader.characterOffset()) - 1));
        ITCXMLNode::Element element;
        element.name = mReader.qualifiedName().toUtf8();
        element.line = mLine;
        element.column = column();
        for (const QXmlStreamAttribute& attribute : mReader.attributes()) {
            element.attributes.emplace_back(attribute.qualifiedName().toUtf8(),
                                            attribute.value().toUtf8());
        }
        return element;
    }

    void moveTo(int offset)
    {
        for (; mOffset < offset; ++mOffset) {
            if (mText.at(mOffset) == '\n') {
                ++mLine;
                mLineStart = mOffset + 1;
            }
        }
    }

    int column() const { return mOffset - mLineStart + 1; }

    const QString mText;
    QXmlStreamReader mReader;
    Error mError = NotWellFormed;
    int mOffset = 0;
    int mLineStart = 0;
    int mLine = 1;
};

ITCXMLNode IXMLDomParser::parseFile(const char* fileName, const char* rootTagName,
                                    ITCXMLResults& results)
{
    const auto document = std::make_shared<ITCXMLNode::Element>();
    QByteArray content;
    Problem problem = readFile(fileName, content);
    if (problem.error == NoError) {
        problem = Builder(decoded(content)).build(rootTagName, *document);
    }
    mError = problem.error;
    mMessage = problem.what;
    results = {problem.error, problem.line, problem.column};
    return mError == NoError ? ITCXMLNode({document, &document->children.front()}) : ITCXMLNode();
}

const char* IXMLDomParser::getErrorMessage(int errorCode) const
{
    return errorCode == mError ? mMessage.constData() : "unknown error";
}

ITCXMLNode::ITCXMLNode() = default;

ITCXMLNode::ITCXMLNode(std::shared_ptr<const Element> element) : mElement(std::move(element)) {}

bool ITCXMLNode::isEmpty() const
{
    return mElement == nullptr;
}

const char* ITCXMLNode::getName() const
{
    return isEmpty() ? nullptr : mElement->name.constData();
}

const char* ITCXMLNode::getText() const
{
    return isEmpty() || mElement->text.isEmpty() ? nullptr : mElement->text.constData();
}

const char* ITCXMLNode::getAttribute(const char* name) const
{
    if (isEmpty()) {
        return nullptr;
    }
    const auto& attributes = mElement->attributes;
    const auto found = std::find_if(attributes.begin(), attributes.end(),
                                    [name](const auto& entry) { return entry.first == name; });
    return found == attributes.end() ? nullptr : found->second.constData();
}

int ITCXMLNode::nAttribute() const
{
    return isEmpty() ? 0 : static_cast<int>(mElement->attributes.size());
}

const char* ITCXMLNode::getAttributeName(int index) const
{
    if (index < 0 || index >= nAttribute()) {
        return nullptr;
    }
    return mElement->attributes[static_cast<std::size_t>(index)].first.constData();
}

int ITCXMLNode::nChildNode() const
{
    return isEmpty() ? 0 : static_cast<int>(mElement->children.size());
}

ITCXMLNode ITCXMLNode::getChildNode(int index) const
{
    if (index < 0 || index >= nChildNode()) {
        return {};
    }
    // Shares ownership of the whole document.
    return ITCXMLNode({mElement, &mElement->children[static_cast<std::size_t>(index)]});
}

int ITCXMLNode::line() const
{
    return isEmpty() ? 0 : mElement->line;
}

int ITCXMLNode::column() const
{
    return isEmpty() ? 0 : mElement->column;
}
