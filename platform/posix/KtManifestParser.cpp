#include "platform/KtManifestParser.h"

bool KtManifestEntry::hasParam(const String& key) const {
    for (const auto& param : params_) {
        if (param.first == key) {
            return true;
        }
    }
    return false;
}

String KtManifestEntry::getParam(const String& key) const {
    for (const auto& param : params_) {
        if (param.first == key) {
            return param.second;
        }
    }
    return String();
}

void KtManifestEntry::setParam(const String& key, const String& value) {
    for (auto& param : params_) {
        if (param.first == key) {
            param.second = value;
            return;
        }
    }
    params_.emplace_back(key, value);
}

XCode KtManifestParser::parse(const String& text) {
    parsed_ = false;
    entry_ = KtManifestEntry();
    KtManifestEntry entry;
    const std::vector<String> lines = text.split('\n');
    for (std::size_t index = 0; index < lines.size(); ++index) {
        String line = lines[index];
        if (line.endsWith("\r")) {
            line.deleteRegion(line.length() - 1, 1);
        }
        String stripped = line;
        stripped.trim();
        if (stripped.isEmpty() || stripped.startsWith("#")) {
            continue;
        }
        String key;
        String value;
        if (!line.split('=', key, value)) {
            return XCode::FAILURE_F("MANIFEST PARSE ERROR AT LINE %u: missing '='",
                                    static_cast<unsigned int>(index + 1));
        }
        key.trim();
        if (key.isEmpty()) {
            return XCode::FAILURE_F("MANIFEST PARSE ERROR AT LINE %u: missing key",
                                    static_cast<unsigned int>(index + 1));
        }
        entry.setParam(key, value);
    }
    entry_ = entry;
    parsed_ = true;
    return XCode::SUCCESS;
}

XCode KtManifestParser::getManifestEntry(KtManifestEntry& entry) const {
    if (!parsed_ || entry_.params().empty()) {
        return XCode::FAILURE("NO MANIFEST ENTRY");
    }
    entry = entry_;
    return XCode::SUCCESS;
}
