#include "json_file.h"

#include <farlink/file_io.h>
#include <json/reader.h>
#include <json/writer.h>

#include <fstream>

namespace ORVO {
namespace Relay {
namespace internal {

bool ReadJsonFile(const std::string& path, Json::Value& out) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    Json::CharReaderBuilder builder;
    Json::Value parsed;
    std::string errors;
    try {
        if (!Json::parseFromStream(builder, in, &parsed, &errors)) return false;
    } catch (const Json::Exception&) {
        return false;  // nested deeper than the reader's stack limit: unusable
    }
    out = std::move(parsed);
    return true;
}

std::string StyledJson(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "    ";
    return Json::writeString(builder, value) + "\n";
}

bool WriteJsonFile(const std::string& path, const Json::Value& value, mode_t mode) {
    return farlink::WriteFileAtomically(path, StyledJson(value), mode);
}

bool UpdateJsonObjectFile(const std::string& path, const Json::Value& fallback,
                          const std::function<void(Json::Value&)>& update) {
    Json::Value document;
    if (!ReadJsonFile(path, document) || !document.isObject()) document = fallback;
    update(document);
    return WriteJsonFile(path, document);
}

bool PrepareObject(Json::Value& out) {
    if (out.isNull()) out = Json::Value(Json::objectValue);
    return out.isObject();
}

bool TakeString(const Json::Value& object, const char* key, std::string& out) {
    if (!object.isObject()) return false;
    const Json::Value& member = object[key];
    if (!member.isString()) return false;
    out = member.asString();
    return true;
}

bool TakeOptional(const Json::Value& object, const char* key, std::string& out) {
    if (!object.isMember(key)) return true;
    return TakeString(object, key, out);
}

bool TakeOptional(const Json::Value& object, const char* key, int& out) {
    if (!object.isMember(key)) return true;
    const Json::Value& member = object[key];
    if (!member.isInt()) return false;
    out = member.asInt();
    return true;
}

}  // namespace internal
}  // namespace Relay
}  // namespace ORVO
