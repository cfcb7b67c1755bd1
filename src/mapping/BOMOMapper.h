#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

class DBObject;

/// Puts the base-band side's identifiers into the tree: what two mapping files say about objects and
/// attribute names becomes the attributes of one object, which clients fetch like any other.
class BOMOMapper {
public:
    /// The object: at the top of the tree, one int attribute for each mapped DN or attribute name.
    static constexpr const char* objectName = "BOMOMapping";
    /// Raised when a mapping file is missing, and when one cannot be used. Nothing cancels them.
    static constexpr std::int32_t faultFilesMissing = 0x5017;
    static constexpr std::int32_t faultParsingFailed = 0x5006;
    /// Mapping files above this size, in bytes, are refused.
    static constexpr std::size_t maxFileSize = 32 * 1024 * 1024;

    virtual ~BOMOMapper() = default;

    /// Reads the mapping files of `directory` (empty: the working directory) and stores the object.
    /// Both files or nothing. Non-zero when it was stored; otherwise the log says why, and fault
    /// management is told of what is wrong with a file. Never throws.
    int mapBOMO(std::string directory);

    /// Whether both files can be opened; appends the "/" that a directory needs before a file name.
    bool checkFiles(std::string& directory);

    /// Adds one file's entries to `mapping`. False, with an error line, when it cannot be read as a
    /// mapping file; what was added by then stays in `mapping`.
    bool ParseFile(const std::string& directory, const std::string& fileName, DBObject& mapping);

    /// Adds one entry, its value read as a hexadecimal int; a name that is there keeps its value, the
    /// first one given. False for a name that cannot be added: the empty one.
    bool updateBOMO(DBObject& mapping, const std::string& name, const std::string& value);

    /// Stores the object. False, with an error line, when the store refuses it.
    bool insertBOMO(DBObject& mapping);

    /// Tells fault management to raise or cancel a fault.
    void sendFaultNotif(std::int32_t faultCode, bool raise);
};
