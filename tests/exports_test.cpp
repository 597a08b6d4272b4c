// The libraries export exactly their interfaces: every PKEY_ function of the
// core and nothing else; every platform service and HOST_ call of the host.
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>

namespace {

std::set<std::string> defined_dynamic_symbols(const char *library) {
    std::set<std::string> names;
    // The toolchain's nm: in a cross build, one that reads the target's ELF.
    const std::string command = std::string("'" PKEY_NM "' -D --defined-only ") + library;
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return names;
    char line[1024];
    while (std::fgets(line, sizeof line, pipe) != nullptr) {
        char address[64], type[8], name[512];
        if (std::sscanf(line, "%63s %7s %511s", address, type, name) != 3) continue;
        std::string symbol = name;
        if (const auto at = symbol.find('@'); at != std::string::npos) symbol.resize(at);
        // The version-script node name is not a symbol of ours.
        if (std::string(type) == "A") continue;
        names.insert(symbol);
    }
    pclose(pipe);
    return names;
}

const std::set<std::string> kCoreExports = {
    // algorithm numbers and policy
    "PKEY_PUBKEY_GetPkeyAlgIdByEvpId",
    "PKEY_PUBKEY_GetEvpAlgIdByPkeyId",
    "PKEY_IsValidECDSACurve",
    "PKEY_PUBKEY_GetMinECKeyNid",
    "PKEY_PUBKEY_GetMinKeyBits",
    "PKEY_PUBKEY_GetMinKeyBitsByEvpAgl",
    "PKEY_PUBKEY_IsKeyLenValid",
    "PKEY_PUBKEY_GetKeyBits",
    "PKEY_PUBKEY_GetPubKeySize",
    "PKEY_PUBKEY_IsKeyMatchFipsMode",
    "PKEY_PUBKEY_IsEvpAglEnable",
    "PKEY_PUBKEY_IsPublicKeyPossible",
    // text helpers
    "PKEY_StrRemoveSpaceCopy",
    "PKEY_RemoveCRLF",
    "PKEY_HexAsc2Bin",
    "PKEY_IsValidHexString",
    "PKEY_HexStringToHexData",
    "PKEY_LenBeforeSeparator",
    // key store names
    "PKEY_FS_GetKeyDir",
    "PKEY_FS_GetDefaultKeyName",
    "PKEY_FS_GetPKEYDefaultKeyName",
    "PKEY_FS_CheckMemStatus",
    "PKEY_FS_StrEndString",
    "PKEY_FS_GetLocKeyMemDirByAlgId",
    "PKEY_FS_GetPkeyMemDir",
    "PKEY_FS_MakeMemFilePrefix",
    "PKEY_FS_MakeDevFilePrefix",
    "PKEY_FS_MakeFullFileName",
    // locked files and key directories
    "PKEY_FS_OpenLock",
    "PKEY_FS_OpenCreateLock",
    "PKEY_FS_CloseUnLock",
    "PKEY_FS_MakeDir",
    "PKEY_FS_IsFileExisted",
    "PKEY_FS_IsDirExisted",
    "PKEY_FS_ReadDataFromVFS",
    "PKEY_FS_WriteDataToVFSWithFd",
    "PKEY_FS_WriteDataToVFS",
    "PKEY_FS_RemoveFileFromVFS",
    "PKEY_FS_CopyFileByFullName",
    "PKEY_FS_RemovePkeyDir",
    "PKEY_FS_CopyPkeyDir",
    // memory mirror
    "PKEY_CFGMNG_UpdateLocKeyMemFiles",
    "PKEY_CFGMNG_CopyFile2File",
    // standby backup
    "PKEY_BACKUP_IsNodeStatusNormal",
    "PKEY_BACKUP_SndRtLocalKey",
    "PKEY_BACKUP_Batch",
    "PKEY_BACKUP_BatchMemProc",
    "PKEY_BACKUP_BatchDevProc",
    // enumeration, export and destruction of local keys
    "PKEY_LOCAL_GetNextInit",
    "PKEY_LOCAL_GetFirst",
    "PKEY_LOCAL_GetNext",
    "PKEY_LOCAL_GetNextFinal",
    "PKEY_LOCAL_DestoryNextHandle",
    "PKEY_LOCAL_GetLocPubKeyInfo",
    "PKEY_LOCAL_GetPubKeyValue",
    "PKEY_LOCAL_ExportPubKey",
    "PKEY_LOCAL_AppendBufFromSSH1",
    "PKEY_LOCAL_AppendBufFromSSH2",
    "PKEY_LOCAL_AppendBufFromOPENSSH",
    "PKEY_LOCAL_DestroyOneKey",
    "PKEY_LOCAL_DestroyKey",
    // peer key store and operations
    "PKEY_CFGMNG_OpenDBM",
    "PKEY_CFGMNG_Save",
    "PKEY_CFGMNG_Delete",
    "PKEY_CFGMNG_GetPeerPubKeyValue",
    "PKEY_CFGMNG_DestroyNonFIPSApprovedPeerPubKey",
    "PKEY_CFGMNG_GetPeerPubKeyList",
    "PKEY_CFGMNG_GetSortedPeerKeyNameList",
    "PKEY_CFGMNG_DestroySortedPeerKeyNameList",
    "PKEY_PEER_EditKeyCodeFinish",
    "PKEY_EditKeyCode",
    "PKEY_SavePeerPubKey",
    "PKEY_PEER_SavePeerPubKey",
    "PKEY_PEER_RemovePeerPubKeyByName",
    "PKEY_GetUserKeyByName",
    "PKEY_IsPeerPubKeyExisted",
    // generation
    "PKEY_GeneratePKey",
    "PKEY_GenerateRSAKey",
    "PKEY_GenerateDSAKey",
    "PKEY_GenerateECKey",
    "PKEY_LOCAL_GenerateReserve",
    "PKEY_LOCAL_GetServerKeyBitsByHostKeyBits",
    // length prefixes, the store record and the DER display
    "PKEY_PutLenToBuf",
    "PKEY_GetLengthFromData",
    "PKEY_PUBKEY_ConvertKeyToStoreBuf",
    "PKEY_PUBKEY_ConvertStoreBufToKey",
    "PKEY_PUBKEY_GetStoreLenFromEvpReserve",
    "PKEY_PUBKEY_GetRSAStoreLenFromEvp",
    "PKEY_PUBKEY_GetDSAStoreLenFromEvp",
    "PKEY_PUBKEY_GetECDSAStoreLenFromEvp",
    "PKEY_PUBKEY_ConvertKeyToStoreBufReserve",
    "PKEY_PUBKEY_ConvertRSAKeyToStoreBuf",
    "PKEY_PUBKEY_ConvertDSAKeyToStoreBuf",
    "PKEY_PUBKEY_ConvertECDSAKeyToStoreBuf",
    "PKEY_PUBKEY_FillBN2StoreBuf",
    "PKEY_PUBKEY_GetBNFromBuf",
    "PKEY_PUBKEY_DER2BdrnBuf",
    // SSH public key blob and Base64
    "PKEY_PUBKEY_EvppkeyToBase64",
    "PKEY_PUBKEY_Base64toEvppkey",
    "PKEY_CmpPubKey",
    "PKEY_PUBKEY_IsBase64BlobStrict",
    "PKEY_PUBKEY_GetBufLenFromKeyReserve",
    "PKEY_PUBKEY_GetBufLenFromRSAKey",
    "PKEY_PUBKEY_GetBufLenFromDSAKey",
    "PKEY_PUBKEY_GetBufLenFromECDSAKey",
    "PKEY_PUBKEY_FillKeyToBufReserve",
    "PKEY_PUBKEY_FillRSAKeyToBuf",
    "PKEY_PUBKEY_FillDSAKeyToBuf",
    "PKEY_PUBKEY_FillECDSAKeyToBuf",
    "PKEY_PUBKEY_FillBNToBuf",
    "PKEY_PUBKEY_GetBNFromKeyBuf",
    // ECDSA public keys
    "PKEY_ReadECDSAPubKey",
    "PKEY_EC_EcToBase64",
    // key files
    "PKEY_SaveLocalKey",
    "PKEY_LOCAL_SaveLocalKey",
    "PKEY_LOCAL_WriteKeyBufToDev",
    "PKEY_LOCAL_ReadKeyToBuf",
    "PKEY_LOCAL_DecryptPKey",
    "PKEY_LOCAL_GetKeyStatusFromDataBuf",
    "PKEY_LOCAL_ReadKeyToEvpPkey",
    "PKEY_LOCAL_DestoryEvpkeyWithTime",
    "PKEY_LOCAL_DestroyLocalKeyInfo",
    // local key names, lookup and checks
    "PKEY_LOCAL_IsKeyNameCharValid",
    "PKEY_CheckLocalKeyName",
    "PKEY_AdjustLocalKeyNameToValid",
    "PKEY_LOCAL_GetLocKey",
    "PKEY_GetHostKey",
    "PKEY_GetServerKey",
    "PKEY_LOCAL_IsKeyExist",
    "PKEY_IsKeyExist",
    "PKEY_LOCAL_GetLocalKeyName",
    "PKEY_LOCAL_CheckFullFileName",
    "PKEY_DestroyNonFIPSApprovedKeyPairs",
    // creating and replacing local keys
    "PKEY_LOCAL_GenerateOneKey",
    "PKEY_LOCAL_GenerateKey",
    "PKEY_UpdateServerKey",
    "PKEY_SaveHostKey",
    "PKEY_SaveServerKey",
    // peer key text
    "PKEY_PEER_PeerPubKeyPreProc",
    "PKEY_PEER_ReadSSH2PubKey",
    "PKEY_PEER_ReadOpenSSHPubKey",
    "PKEY_PEER_ReadSSH1PubKey",
};

// The host platform's library; the build names it on the host platform only.
#ifdef LIBPKEY_HOST_PATH
const std::set<std::string> kHostExports = {
    "DBM_Open",
    "DBM_Close",
    "DBM_Len",
    "DBM_GetBinary",
    "DBM_SetBinary",
    "DBM_DeleteKey",
    "DBM_GetKeyNumByValueType",
    "DBM_GetKeysByValueType",
    "DBM_FreeIterator",
    "DBM_GetChangeStamp",
    "DBM_GetKeysChangedSince",
    "DEV_GetSelf",
    "DEV_GetSelfSlot",
    "DEV_GetAllStandbyNodes",
    "DEV_GetDeviceStatusEx",
    "FS_GetNodeDefaultWorkDir",
    "FS_GetLocalDefaultWorkDir",
    "FS_GetDefaultWorkDirBySlot",
    "FS_GetNodePathName",
    "FS_AnalyseFileName",
    "FS_IsValidFullFileName",
    "CRYPTO_FIPSIsEnabled",
    "CRYPTO_AlgoIsEnabled",
    "PKEY_Encrypt",
    "PKEY_Decrypt",
    "Mem_Alert_GetCurrentState",
    "RC_LoadString",
    "scnprintf",
    "lowercase",
    "freedir",
    "HOST_Open",
    "HOST_OpenExisting",
    "HOST_LastError",
    "HOST_ClearError",
    "HOST_SetFipsMode",
    "HOST_SetAlgoEnabled",
    "HOST_SetMemAlarm",
    "HOST_SetSelfNode",
    "HOST_SetStandbyNodes",
    "HOST_SetNodeStatus",
};
#endif

TEST(Exports, CoreLibraryExportsExactlyItsPkeyFunctions) {
    EXPECT_EQ(defined_dynamic_symbols(LIBPKEY_PATH), kCoreExports);
}

#ifdef LIBPKEY_HOST_PATH
TEST(Exports, HostLibraryExportsExactlyThePlatformServices) {
    EXPECT_EQ(defined_dynamic_symbols(LIBPKEY_HOST_PATH), kHostExports);
}
#endif

}  // namespace
