// Flattening a feed's HTML fragment (a title or a description) to plain text.
#include <cstdio>
#include <memory>
#include <sys/types.h>

#include <libxml/HTMLparser.h>

#include "items/rss_loader.h"
#include "platform/t4mi_assert.h"

namespace {
struct xml_doc_deleter {
    void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};
using html_doc_owner = std::unique_ptr<xmlDoc, xml_doc_deleter>;

struct xml_string_deleter {
    void operator()(xmlChar* s) const { xmlFree(s); }
};
using xml_string_owner = std::unique_ptr<xmlChar, xml_string_deleter>;

// Recover from broken markup, keep quiet about warnings (errors still go to
// stderr), never fetch anything, and save memory on small text nodes.
constexpr int HTML_OPTIONS = HTML_PARSE_RECOVER | HTML_PARSE_NOWARNING | HTML_PARSE_NONET | HTML_PARSE_COMPACT;

const xmlNode* first_named(const xmlNode* node, const char* name)
{
    while (node != nullptr && xmlStrcmp(node->name, BAD_CAST name) != 0)
        node = node->next;
    return node;
}

bool is_trailing_blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
} // namespace

std::string RSSInnerHTMLToText(const std::string& html)
{
    // The fragment goes into a body of its own, so the parser never moves it
    // into a head and the text is exactly the body's.
    const std::string wrapped = "<html><body>" + html + "</body></html>";
    const html_doc_owner doc(htmlReadMemory(wrapped.data(), int(wrapped.size()), nullptr, nullptr, HTML_OPTIONS));
    if (!doc) {
        std::fprintf(stderr, "Failed to parse HTML\n");
        return {};
    }
    const xmlNode* root = xmlDocGetRootElement(doc.get());
    if (root == nullptr) {
        std::fprintf(stderr, "Failed to get HTML root node\n");
        return {};
    }
    const xmlNode* html_node = first_named(root, "html");
    const xmlNode* body = html_node ? first_named(html_node->children, "body") : nullptr;
    if (body == nullptr) {
        std::fprintf(stderr, "WARNING: No body\n");
        return {};
    }
    const xml_string_owner content(xmlNodeGetContent(body));
    if (!content) {
        std::fprintf(stderr, "WARNING: Failed to get string\n");
        return {};
    }
    std::string text(reinterpret_cast<const char*>(content.get()));
    ssize_t i = ssize_t(text.size());
    while (i > 0 && is_trailing_blank(text[size_t(i) - 1]))
        i--;
    T4MI_ASSERT(i >= ssize_t(0));
    text.resize(size_t(i));
    return text;
}
