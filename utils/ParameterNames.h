#pragma once

// The names of the plugin's filter parameters, as the host shows them and
// graph files, the kel tool and the Python module set them. The plugin
// creates its parameters with these constants and every other user names
// them through them, so a misspelling cannot be shared unnoticed.

namespace Kel2File {

// Sources.
inline constexpr const char* kParamKelFilePath = "KEL File Path";
inline constexpr const char* kParamIncludedStreams = "Included streams";
inline constexpr const char* kParamKelFilesDir = "KEL files dir";

// Targets.
inline constexpr const char* kParamWriteXml = "Write XML";
inline constexpr const char* kParamCreateThumbnail = "Create thumbnail for first frame";
inline constexpr const char* kParamEnableRecording = "Enable Recording";
inline constexpr const char* kParamTakeSnapshot = "Take snapshot";
inline constexpr const char* kParamFramesPerSnapshot = "Frames count per snapshot";
inline constexpr const char* kParamBufferSize = "Buffer size";
inline constexpr const char* kParamBufferedFrames = "Buffered frames count";
inline constexpr const char* kParamDropWhenFull = "Drop frames when full";
inline constexpr const char* kParamDroppedFrames = "Dropped frames count";
inline constexpr const char* kParamResetDropped = "Reset dropped frames counter";

}  // namespace Kel2File
