// Calibration files as one tree, whatever their syntax: JSON, and the YAML
// and XML that OpenCV's FileStorage writes. The readers take what those
// writers produce (mappings, sequences, numbers, strings, OpenCV's matrix
// nodes with rows, cols, dt and data), not every corner of YAML or XML:
// anchors, multi-document streams, block scalars, entities other than the
// five predefined ones and DTDs are refused with the line they stand on.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace vq_tl::twinlens {

struct Node {
    enum Kind { kNull, kBool, kNumber, kString, kList, kMap };
    Kind kind = kNull;
    double number = 0;  // kNumber, and kBool as 0 or 1
    std::string text;   // kString; for kNumber the spelling it was read from
    std::vector<Node> items;
    std::vector<std::pair<std::string, Node>> fields;  // in file order
    int line = 0;                                      // where the value starts, from 1

    // The field of a map, or null.
    const Node* find(const std::string& key) const;
    // Numbers of a list (or a single number): false when any item is not a
    // number.
    bool numbers(std::vector<double>* out) const;
};

// Each returns false with `error` ("line N: what") when the text does not parse.
bool parseJson(const std::string& text, Node* out, std::string* error);
bool parseOpenCvYaml(const std::string& text, Node* out, std::string* error);
bool parseOpenCvXml(const std::string& text, Node* out, std::string* error);

// By the text's first significant characters: "%YAML" or a YAML mapping,
// "<" XML, "{" or "[" JSON.
bool parseAny(const std::string& text, Node* out, std::string* error);

}  // namespace vq_tl::twinlens
