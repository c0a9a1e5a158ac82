#include "container/XmlCompanion.h"

#include <KEL/KELPurposeGuids.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <pugixml.hpp>
#include <sstream>

#include "container/ContainerFormat.h"

namespace KEL::container {

void XmlCompanion::AddAtom(const AtomKey& key, const std::vector<Atom::LayerPtr>& layers) {
    auto [it, inserted] = streamIndex_.try_emplace(key.streamId, streams_.size());
    if (inserted) {
        StreamSummary s;
        s.id = key.streamId;
        s.firstFrame = s.lastFrame = key.frameNr;
        s.firstTimeStamp = s.lastTimeStamp = key.timeStamp;
        streams_.push_back(std::move(s));
    }
    StreamSummary& s = streams_[it->second];
    ++s.atoms;
    ++atoms_;
    s.firstFrame = std::min(s.firstFrame, key.frameNr);
    s.lastFrame = std::max(s.lastFrame, key.frameNr);
    s.firstTimeStamp = std::min(s.firstTimeStamp, key.timeStamp);
    s.lastTimeStamp = std::max(s.lastTimeStamp, key.timeStamp);
    for (const auto& layer : layers) {
        const auto kindKey = std::make_tuple(layer->GetTypeGuid(), layer->GetPurposeGuid(), layer->GetVersion());
        auto [kind, added] = s.layerIndex.try_emplace(kindKey, s.layers.size());
        if (added) {
            LayerKind k;
            k.typeName = layer->TypeName();
            k.typeGuid = layer->GetTypeGuid();
            k.purposeGuid = layer->GetPurposeGuid();
            k.version = layer->GetVersion();
            s.layers.push_back(std::move(k));
        }
        LayerKind& k = s.layers[kind->second];
        const std::uint64_t bytes = layer->PayloadSize();
        ++k.atoms;
        k.payloadBytes += bytes;
        s.payloadBytes += bytes;
    }
}

std::string XmlCompanion::Render(const std::string& containerPath, std::uint64_t fileSize, std::uint64_t fileId,
                                 std::int64_t createdUs) const {
    pugi::xml_document doc;
    auto decl = doc.append_child(pugi::node_declaration);
    decl.append_attribute("version") = "1.0";
    decl.append_attribute("encoding") = "UTF-8";
    auto root = doc.append_child("kelContainer");
    root.append_attribute("file") = std::filesystem::path(containerPath).filename().string().c_str();
    // The identity ties the companion to its container: one left beside a
    // newer file of the same name is recognised as stale.
    char id[17];
    std::snprintf(id, sizeof id, "%016llx", static_cast<unsigned long long>(fileId));
    root.append_attribute("fileId") = id;
    root.append_attribute("created") = static_cast<long long>(createdUs);
    root.append_attribute("formatVersion") = static_cast<unsigned>(kFormatVersion);
    root.append_attribute("fileSize") = static_cast<unsigned long long>(fileSize);
    root.append_attribute("atoms") = static_cast<unsigned long long>(atoms_);
    root.append_attribute("streams") = static_cast<unsigned long long>(streams_.size());
    for (const auto& s : streams_) {
        auto node = root.append_child("stream");
        node.append_attribute("id") = static_cast<unsigned>(s.id);
        node.append_attribute("frames") = static_cast<unsigned long long>(s.atoms);
        node.append_attribute("firstFrame") = static_cast<unsigned>(s.firstFrame);
        node.append_attribute("lastFrame") = static_cast<unsigned>(s.lastFrame);
        node.append_attribute("firstTimeStamp") = static_cast<long long>(s.firstTimeStamp);
        node.append_attribute("lastTimeStamp") = static_cast<long long>(s.lastTimeStamp);
        node.append_attribute("payloadBytes") = static_cast<unsigned long long>(s.payloadBytes);
        for (const auto& k : s.layers) {
            auto layer = node.append_child("layer");
            layer.append_attribute("type") = k.typeName.c_str();
            layer.append_attribute("typeGuid") = k.typeGuid.ToString().c_str();
            const auto alias = KELPurposeGuids::GetAlias(k.purposeGuid);
            layer.append_attribute("purpose") = alias ? alias->c_str() : k.purposeGuid.ToString().c_str();
            layer.append_attribute("purposeGuid") = k.purposeGuid.ToString().c_str();
            layer.append_attribute("version") = static_cast<unsigned>(k.version);
            layer.append_attribute("atoms") = static_cast<unsigned long long>(k.atoms);
            layer.append_attribute("payloadBytes") = static_cast<unsigned long long>(k.payloadBytes);
        }
    }
    std::ostringstream out;
    doc.save(out, "  ", pugi::format_default, pugi::encoding_utf8);
    return out.str();
}

}  // namespace KEL::container
