#pragma once

#include <memory>

#include <QByteArray>

/// One element of a parsed XML document. Cheap to copy; keeps the document alive. Texts are UTF-8.
class ITCXMLNode
{
public:
    /// The empty node, which has no name, text, attributes or children.
    ITCXMLNode();

    bool isEmpty() const;
    /// The element's name; null for the empty node.
    const char* getName() const;
    /// The text directly in this element: its pieces joined, without leading and trailing white
    /// space; null if there is none.
    const char* getText() const;
    /// The value of the attribute; null when the element has no such attribute.
    const char* getAttribute(const char* name) const;
    /// The number of attributes.
    int nAttribute() const;
    /// The name of the attribute at @p index (from 0, in document order); null outside the range.
    const char* getAttributeName(int index) const;
    /// The number of child elements.
    int nChildNode() const;
    /// The child element at @p index (from 0, in document order); the empty node outside the range.
    ITCXMLNode getChildNode(int index) const;
    /// The line and column at which the element starts in the file, both from 1, columns in
    /// characters; 0 for the empty node.
    int line() const;
    int column() const;

private:
    friend class IXMLDomParser;
    struct Element;
    explicit ITCXMLNode(std::shared_ptr<const Element> element);
    std::shared_ptr<const Element> mElement;
};

/// Outcome of IXMLDomParser::parseFile().
struct ITCXMLResults
{
    int error = 0;  ///< 0 on success, otherwise one of IXMLDomParser::Error
    int line = 0;   ///< of the error, from 1; 0 if it has no place in the text
    int column = 0; ///< in characters, from 1
};

/// Reads well-formed XML documents in UTF-8 or in another encoding that the document declares.
/// A document cannot define entities or include other files.
class IXMLDomParser
{
public:
    enum Error
    {
        NoError = 0,
        UnreadableFile,      ///< missing, unreadable or not a regular file
        FileTooLarge,        ///< larger than kMaxFileSize
        NotWellFormed,       ///< breaks the rules of XML; NUL bytes and broken UTF-8 do too
        TooDeeplyNested,     ///< elements nested deeper than kMaxDepth
        DocumentTypeRefused, ///< a document type that declares something or refers to another file
        UnexpectedRoot,      ///< a root element of another name
    };

    /// In bytes. In memory a document takes up to forty times its size, and the device has little
    /// memory.
    static constexpr int kMaxFileSize = 4 * 1024 * 1024;
    /// No path can have more components than this (PATH_MAX / 2).
    static constexpr int kMaxDepth = 2048;

    /// Reads @p fileName and returns its root element, which must be named @p rootTagName.
    /// @param results receives the outcome
    /// @return the root element; the empty node on failure
    ITCXMLNode parseFile(const char* fileName, const char* rootTagName, ITCXMLResults& results);

    /// Describes the error of the last parseFile() with its file and place; valid until the next
    /// parseFile().
    const char* getErrorMessage(int errorCode) const;

private:
    class Builder;
    int mError = NoError;
    QByteArray mMessage;
};
