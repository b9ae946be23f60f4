// The system's event log interface of Windows Vista and later, loaded at run time from
// "Wevtapi.dll" so that the program still starts where the library is missing.
//
// Only the few types, values and entry points the program uses are declared here, with
// the layouts and numbers the library defines; <winevt.h> is not needed. Strings are
// UTF-16 (wchar_t is 16 bits on Windows). Compiles to nothing on other systems.
#pragma once

#ifdef _WIN32

#include <cstdint>

#define QVX_WEVT_CALL __stdcall

namespace qvx::wevt {

using EVT_HANDLE = void*;

// A typed value as the library hands it out: 8 bytes of value, then count and type.
struct EVT_VARIANT {
  union {
    int32_t BooleanVal;
    int32_t Int32Val;
    int64_t Int64Val;
    uint32_t UInt32Val;
    uint64_t UInt64Val;
    uint64_t FileTimeVal;
    const wchar_t* StringVal;
    const uint8_t* BinaryVal;
    void* SidVal;
    EVT_HANDLE EvtHandleVal;
  };
  uint32_t Count;
  uint32_t Type;
};

struct EVT_RPC_LOGIN {
  wchar_t* Server;
  wchar_t* User;
  wchar_t* Domain;
  wchar_t* Password;
  uint32_t Flags;
};

// EVT_VARIANT.Type (low 7 bits; bit 7 marks an array)
inline constexpr uint32_t EvtVarTypeNull = 0;
inline constexpr uint32_t EvtVarTypeString = 1;
inline constexpr uint32_t EvtVarTypeInt32 = 7;
inline constexpr uint32_t EvtVarTypeUInt32 = 8;
inline constexpr uint32_t EvtVarTypeInt64 = 9;
inline constexpr uint32_t EvtVarTypeUInt64 = 10;
inline constexpr uint32_t EvtVarTypeBoolean = 13;
inline constexpr uint32_t EvtVarTypeFileTime = 17;
inline constexpr uint32_t EvtVarTypeEvtHandle = 32;
inline constexpr uint32_t EvtVarTypeMask = 0x7f;

inline constexpr uint32_t EvtRpcLogin = 1; // login class of EvtOpenSession

// EvtQuery flags
inline constexpr uint32_t EvtQueryChannelPath = 0x1;
inline constexpr uint32_t EvtQueryFilePath = 0x2;
inline constexpr uint32_t EvtQueryReverseDirection = 0x200;
// EvtOpenLog flags
inline constexpr uint32_t EvtOpenChannelPath = 0x1;
inline constexpr uint32_t EvtOpenFilePath = 0x2;
// EvtExportLog flags
inline constexpr uint32_t EvtExportLogChannelPath = 0x1;
// EvtRender flags
inline constexpr uint32_t EvtRenderEventXml = 1;
// EvtFormatMessage flags
inline constexpr uint32_t EvtFormatMessageEvent = 1;
inline constexpr uint32_t EvtFormatMessageTask = 3;
inline constexpr uint32_t EvtFormatMessageId = 8;

// EvtGetLogInfo properties
inline constexpr uint32_t EvtLogCreationTime = 0;
inline constexpr uint32_t EvtLogLastAccessTime = 1;
inline constexpr uint32_t EvtLogLastWriteTime = 2;
inline constexpr uint32_t EvtLogFileSize = 3;
inline constexpr uint32_t EvtLogNumberOfLogRecords = 5;
inline constexpr uint32_t EvtLogFull = 7;

// EvtGetChannelConfigProperty / EvtSetChannelConfigProperty properties
inline constexpr uint32_t EvtChannelConfigEnabled = 0;
inline constexpr uint32_t EvtChannelConfigType = 2;
inline constexpr uint32_t EvtChannelConfigOwningPublisher = 3;
inline constexpr uint32_t EvtChannelConfigClassicEventlog = 4;
inline constexpr uint32_t EvtChannelLoggingConfigRetention = 6;
inline constexpr uint32_t EvtChannelLoggingConfigAutoBackup = 7;
inline constexpr uint32_t EvtChannelLoggingConfigMaxSize = 8;
inline constexpr uint32_t EvtChannelLoggingConfigLogFilePath = 9;

// EvtGetPublisherMetadataProperty / EvtGetObjectArrayProperty properties
inline constexpr uint32_t EvtPublisherMetadataChannelReferences = 6;
inline constexpr uint32_t EvtPublisherMetadataChannelReferencePath = 7;
inline constexpr uint32_t EvtPublisherMetadataTasks = 16;
inline constexpr uint32_t EvtPublisherMetadataTaskName = 17;
inline constexpr uint32_t EvtPublisherMetadataTaskValue = 19;
inline constexpr uint32_t EvtPublisherMetadataTaskMessageID = 20;

// EvtGetEventMetadataProperty properties
inline constexpr uint32_t EventMetadataEventID = 0;
inline constexpr uint32_t EventMetadataEventVersion = 1;
inline constexpr uint32_t EventMetadataEventMessageID = 7;

// System error codes the event log interface reports
inline constexpr uint32_t kErrorInsufficientBuffer = 122;
inline constexpr uint32_t kErrorNoMoreItems = 259;
inline constexpr uint32_t kErrorEventlogFileCorrupt = 1500;
inline constexpr uint32_t kErrorEvtMessageNotFound = 15027;
inline constexpr uint32_t kErrorEvtUnresolvedValueInsert = 15029;
inline constexpr uint32_t kErrorEvtUnresolvedParameterInsert = 15030;

using TEvtOpenSession = EVT_HANDLE(QVX_WEVT_CALL*)(uint32_t LoginClass, void* Login, uint32_t Timeout,
                                                   uint32_t Flags);
using TEvtClose = int(QVX_WEVT_CALL*)(EVT_HANDLE Object);
using TEvtCancel = int(QVX_WEVT_CALL*)(EVT_HANDLE Object);
using TEvtGetExtendedStatus = uint32_t(QVX_WEVT_CALL*)(uint32_t BufferSize, wchar_t* Buffer,
                                                       uint32_t* BufferUsed);
using TEvtQuery = EVT_HANDLE(QVX_WEVT_CALL*)(EVT_HANDLE Session, const wchar_t* Path, const wchar_t* Query,
                                             uint32_t Flags);
using TEvtNext = int(QVX_WEVT_CALL*)(EVT_HANDLE ResultSet, uint32_t EventArraySize, EVT_HANDLE* EventArray,
                                     uint32_t Timeout, uint32_t Flags, uint32_t* Returned);
using TEvtSeek = int(QVX_WEVT_CALL*)(EVT_HANDLE ResultSet, int64_t Position, EVT_HANDLE Bookmark,
                                     uint32_t Timeout, uint32_t Flags);
using TEvtSubscribeCallback = uint32_t(QVX_WEVT_CALL*)(uint32_t Action, void* UserContext, EVT_HANDLE Event);
using TEvtSubscribe = EVT_HANDLE(QVX_WEVT_CALL*)(EVT_HANDLE Session, void* SignalEvent,
                                                 const wchar_t* ChannelPath, const wchar_t* Query,
                                                 EVT_HANDLE Bookmark, void* Context,
                                                 TEvtSubscribeCallback Callback, uint32_t Flags);
using TEvtCreateRenderContext = EVT_HANDLE(QVX_WEVT_CALL*)(uint32_t ValuePathsCount,
                                                           const wchar_t** ValuePaths, uint32_t Flags);
using TEvtRender = int(QVX_WEVT_CALL*)(EVT_HANDLE Context, EVT_HANDLE Fragment, uint32_t Flags,
                                       uint32_t BufferSize, void* Buffer, uint32_t* BufferUsed,
                                       uint32_t* PropertyCount);
using TEvtFormatMessage = int(QVX_WEVT_CALL*)(EVT_HANDLE PublisherMetadata, EVT_HANDLE Event,
                                              uint32_t MessageId, uint32_t ValueCount, EVT_VARIANT* Values,
                                              uint32_t Flags, uint32_t BufferSize, wchar_t* Buffer,
                                              uint32_t* BufferUsed);
using TEvtOpenLog = EVT_HANDLE(QVX_WEVT_CALL*)(EVT_HANDLE Session, const wchar_t* Path, uint32_t Flags);
using TEvtGetLogInfo = int(QVX_WEVT_CALL*)(EVT_HANDLE Log, uint32_t PropertyId, uint32_t BufferSize,
                                           EVT_VARIANT* Buffer, uint32_t* BufferUsed);
using TEvtClearLog = int(QVX_WEVT_CALL*)(EVT_HANDLE Session, const wchar_t* ChannelPath,
                                         const wchar_t* TargetFilePath, uint32_t Flags);
using TEvtExportLog = int(QVX_WEVT_CALL*)(EVT_HANDLE Session, const wchar_t* Path, const wchar_t* Query,
                                          const wchar_t* TargetFilePath, uint32_t Flags);
using TEvtArchiveExportedLog = int(QVX_WEVT_CALL*)(EVT_HANDLE Session, const wchar_t* LogFilePath,
                                                   uint32_t Locale, uint32_t Flags);
using TEvtOpenChannelEnum = EVT_HANDLE(QVX_WEVT_CALL*)(EVT_HANDLE Session, uint32_t Flags);
using TEvtNextChannelPath = int(QVX_WEVT_CALL*)(EVT_HANDLE ChannelEnum, uint32_t BufferSize, wchar_t* Buffer,
                                                uint32_t* BufferUsed);
using TEvtOpenChannelConfig = EVT_HANDLE(QVX_WEVT_CALL*)(EVT_HANDLE Session, const wchar_t* ChannelPath,
                                                         uint32_t Flags);
using TEvtSaveChannelConfig = int(QVX_WEVT_CALL*)(EVT_HANDLE ChannelConfig, uint32_t Flags);
using TEvtSetChannelConfigProperty = int(QVX_WEVT_CALL*)(EVT_HANDLE ChannelConfig, uint32_t PropertyId,
                                                         uint32_t Flags, EVT_VARIANT* PropertyValue);
using TEvtGetChannelConfigProperty = int(QVX_WEVT_CALL*)(EVT_HANDLE ChannelConfig, uint32_t PropertyId,
                                                         uint32_t Flags, uint32_t BufferSize,
                                                         EVT_VARIANT* Buffer, uint32_t* BufferUsed);
using TEvtOpenPublisherEnum = EVT_HANDLE(QVX_WEVT_CALL*)(EVT_HANDLE Session, uint32_t Flags);
using TEvtNextPublisherId = int(QVX_WEVT_CALL*)(EVT_HANDLE PublisherEnum, uint32_t BufferSize,
                                                wchar_t* Buffer, uint32_t* BufferUsed);
using TEvtOpenPublisherMetadata = EVT_HANDLE(QVX_WEVT_CALL*)(EVT_HANDLE Session, const wchar_t* PublisherId,
                                                             const wchar_t* LogFilePath, uint32_t Locale,
                                                             uint32_t Flags);
using TEvtGetPublisherMetadataProperty = int(QVX_WEVT_CALL*)(EVT_HANDLE PublisherMetadata,
                                                             uint32_t PropertyId, uint32_t Flags,
                                                             uint32_t BufferSize, EVT_VARIANT* Buffer,
                                                             uint32_t* BufferUsed);
using TEvtOpenEventMetadataEnum = EVT_HANDLE(QVX_WEVT_CALL*)(EVT_HANDLE PublisherMetadata, uint32_t Flags);
using TEvtNextEventMetadata = EVT_HANDLE(QVX_WEVT_CALL*)(EVT_HANDLE EventMetadataEnum, uint32_t Flags);
using TEvtGetEventMetadataProperty = int(QVX_WEVT_CALL*)(EVT_HANDLE EventMetadata, uint32_t PropertyId,
                                                         uint32_t Flags, uint32_t BufferSize,
                                                         EVT_VARIANT* Buffer, uint32_t* BufferUsed);
using TEvtGetObjectArraySize = int(QVX_WEVT_CALL*)(EVT_HANDLE ObjectArray, uint32_t* ArraySize);
using TEvtGetObjectArrayProperty = int(QVX_WEVT_CALL*)(EVT_HANDLE ObjectArray, uint32_t PropertyId,
                                                       uint32_t ArrayIndex, uint32_t Flags,
                                                       uint32_t BufferSize, EVT_VARIANT* Buffer,
                                                       uint32_t* BufferUsed);
using TEvtGetQueryInfo = int(QVX_WEVT_CALL*)(EVT_HANDLE Query, uint32_t PropertyId, uint32_t BufferSize,
                                             EVT_VARIANT* Buffer, uint32_t* BufferUsed);
using TEvtCreateBookmark = EVT_HANDLE(QVX_WEVT_CALL*)(const wchar_t* BookmarkXml);
using TEvtUpdateBookmark = int(QVX_WEVT_CALL*)(EVT_HANDLE Bookmark, EVT_HANDLE Event);
using TEvtGetEventInfo = int(QVX_WEVT_CALL*)(EVT_HANDLE Event, uint32_t PropertyId, uint32_t BufferSize,
                                             EVT_VARIANT* Buffer, uint32_t* BufferUsed);

// clang-format off
#define QVX_WEVT_FUNCTIONS(X) \
  X(EvtOpenSession) X(EvtClose) X(EvtCancel) X(EvtGetExtendedStatus) X(EvtQuery) X(EvtNext) \
  X(EvtSeek) X(EvtSubscribe) X(EvtCreateRenderContext) X(EvtRender) X(EvtFormatMessage) \
  X(EvtOpenLog) X(EvtGetLogInfo) X(EvtClearLog) X(EvtExportLog) X(EvtArchiveExportedLog) \
  X(EvtOpenChannelEnum) X(EvtNextChannelPath) X(EvtOpenChannelConfig) \
  X(EvtSaveChannelConfig) X(EvtSetChannelConfigProperty) X(EvtGetChannelConfigProperty) \
  X(EvtOpenPublisherEnum) X(EvtNextPublisherId) X(EvtOpenPublisherMetadata) \
  X(EvtGetPublisherMetadataProperty) X(EvtOpenEventMetadataEnum) X(EvtNextEventMetadata) \
  X(EvtGetEventMetadataProperty) X(EvtGetObjectArraySize) X(EvtGetObjectArrayProperty) \
  X(EvtGetQueryInfo) X(EvtCreateBookmark) X(EvtUpdateBookmark) X(EvtGetEventInfo)
// clang-format on

// The entry points of the loaded library; every one is set.
struct TWevtApi {
#define QVX_WEVT_MEMBER(Name) T##Name Name = nullptr;
  QVX_WEVT_FUNCTIONS(QVX_WEVT_MEMBER)
#undef QVX_WEVT_MEMBER
};

// Loads the library on first use and keeps it for the life of the process. Raises
// ENTException ("Wevtapi.dll: <code>: <text>") when it cannot be loaded, and
// std::runtime_error ("Assertion failed: Wevtapi.dll has no function <name>") when an
// entry point is missing; a later call tries again.
const TWevtApi& WevtApi();

// Closes a handle of the library unless it is null; null afterwards.
void CloseEvtHandle(EVT_HANDLE& AHandle);

} // namespace qvx::wevt

#endif // _WIN32
