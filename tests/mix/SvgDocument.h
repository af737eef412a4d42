// The elements of an SVG document in their order. GLib's parser reads them; it shares no code with the SVG writer.

#ifndef VEXALIVE_TESTS_MIX_SVG_DOCUMENT_H
#define VEXALIVE_TESTS_MIX_SVG_DOCUMENT_H

#include <glib.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

namespace vexalive {

struct SvgElement {
    std::string name;
    std::map<std::string, std::string> attributes;
    std::string text;
    std::vector<std::string> groups;  // titles of the enclosing <g> elements, the outermost first

    std::string attribute(const char* attributeName) const {
        const auto found = attributes.find(attributeName);
        return found == attributes.end() ? "" : found->second;
    }
    double number(const char* attributeName) const { return g_ascii_strtod(attribute(attributeName).c_str(), nullptr); }
    std::string kind() const { return attribute("class"); }
};

class SvgDocument {
public:
    explicit SvgDocument(const std::string& svg) {
        GMarkupParser parser{};
        parser.start_element = [](GMarkupParseContext*, const gchar* name, const gchar** names, const gchar** values,
                                  gpointer document, GError**) {
            auto& self = *static_cast<SvgDocument*>(document);
            if (std::string(name) == "g") {
                self.mGroups.emplace_back();
            }
            self.mOpen.push_back(self.mElements.size());
            SvgElement& element = self.mElements.emplace_back(SvgElement{name, {}, "", self.mGroups});
            for (; *names; ++names, ++values) {
                element.attributes[*names] = *values;
            }
        };
        parser.end_element = [](GMarkupParseContext*, const gchar* name, gpointer document, GError**) {
            auto& self = *static_cast<SvgDocument*>(document);
            self.mOpen.pop_back();
            if (std::string(name) == "g") {
                self.mGroups.pop_back();
            }
        };
        parser.text = [](GMarkupParseContext*, const gchar* text, gsize length, gpointer document, GError**) {
            auto& self = *static_cast<SvgDocument*>(document);
            if (self.mOpen.empty()) {
                return;  // white space between the XML declaration and the first element
            }
            SvgElement& element = self.mElements[self.mOpen.back()];
            element.text.append(text, length);
            if (element.name == "title") {
                self.mGroups.back().append(text, length);
            }
        };
        GMarkupParseContext* context = g_markup_parse_context_new(&parser, {}, this, nullptr);
        GError* error = nullptr;
        if (!g_markup_parse_context_parse(context, svg.data(), static_cast<gssize>(svg.size()), &error) ||
            !g_markup_parse_context_end_parse(context, &error)) {
            mError = error->message;
            g_error_free(error);
        }
        g_markup_parse_context_free(context);
    }

    const std::string& error() const { return mError; }  // empty if the SVG is well-formed
    const std::vector<SvgElement>& elements() const { return mElements; }

    std::vector<SvgElement> ofKind(const std::string& kind) const {
        std::vector<SvgElement> found;
        std::copy_if(mElements.begin(), mElements.end(), std::back_inserter(found),
                     [&kind](const SvgElement& element) { return element.kind() == kind; });
        return found;
    }

    std::vector<std::string> texts(const std::string& kind) const {
        std::vector<std::string> found;
        for (const SvgElement& element : ofKind(kind)) {
            found.push_back(element.text);
        }
        return found;
    }

private:
    std::vector<size_t> mOpen;  // indices in mElements of the open elements, the outermost first
    std::vector<SvgElement> mElements;
    std::vector<std::string> mGroups;
    std::string mError;
};

}  // namespace vexalive

#endif
