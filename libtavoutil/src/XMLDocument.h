#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <tavoutil/XMLDomParser.h>

/// The elements of a document in document order; the root is the first.
/// Texts are offsets of zero-terminated strings in one store: a hostile document of millions of
/// elements must fit into a small machine's memory.
struct ITCXMLNode::Document
{
    static constexpr std::uint32_t kNoText = 0;

    struct Element
    {
        std::uint32_t name = kNoText;
        std::uint32_t text = kNoText;
        std::uint32_t firstAttribute = 0;
        std::uint32_t attributeCount = 0;
        std::uint32_t firstChild = 0;
        std::uint32_t childCount = 0;
        std::uint32_t parent = 0;
        int line = 0;
        int column = 0;
    };

    struct Attribute
    {
        std::uint32_t name;
        std::uint32_t value;
    };

    const char* textAt(std::uint32_t offset) const { return texts.data() + offset; }
    std::uint32_t addText(const char* text, std::size_t length);
    /// Fills `children` once all elements are there.
    void listChildren();

    std::string texts = std::string(1, '\0');
    std::vector<Element> elements;
    std::vector<Attribute> attributes;
    /// The children of each element side by side.
    std::vector<std::uint32_t> children;
};
