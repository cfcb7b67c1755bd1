#pragma once

#include <map>
#include <string>
#include <vector>

/// What a template file says about one object: its plain attributes, and the members of its
/// struct-valued ones. Values and types are still text.
class ObjectTemplate {
public:
    struct Plain {
        std::string value;
        std::string type;
    };
    struct Member {
        std::string value;
        std::string type;
        std::string name;
        std::string attribute; ///< the struct-valued attribute it belongs to
    };

    /// Files above this size, in bytes, are refused.
    static constexpr std::size_t maxFileSize = 4 * 1024 * 1024;

    /// Reads the part of an XML file that describes `dn`, having forgotten what was read before. A
    /// file without it gives no attributes. False, with an error line, when the file cannot be read
    /// or parsed; external entities are not followed.
    bool read(const std::string& path, const std::string& dn);
    void clear();

    std::map<std::string, Plain> plain;                 ///< by attribute name
    std::map<std::string, std::vector<Member>> structs; ///< by "type name=attribute name"
};
