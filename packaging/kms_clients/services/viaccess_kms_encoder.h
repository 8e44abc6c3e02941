// Viaccess's encoder key service (kms_encoder_dl), as this packager's client library uses it: one document/literal
// SOAP 1.1 operation, getProtectionInfo, asking the key of a content and each protection system's information
// (PlayReady's header fields, VODRM's) with its pssh. Written by hand for soapcpp2; the stubs are generated into
// the build tree. Elements the stubs do not know are skipped when a response is read.
//
// The namespace name below is ours: set it to the one the operator's server uses if it differs.

//gsoap via schema namespace: urn:tovrane:kms:viaccess:1
//gsoap via schema elementForm: qualified
//gsoap via schema attributeForm: unqualified

//gsoap via service name: kms_encoder_dl
//gsoap via service type: kms_encoder_dlPortType
//gsoap via service style: document
//gsoap via service encoding: literal
//gsoap via service namespace: urn:tovrane:kms:viaccess:1

#import "stlvector.h"

class xsd__base64Binary {
public:
    unsigned char* __ptr;
    int __size;
};

class via__ProtectionListType {
public:
    std::vector<std::string> ProtectionSystem;
};

class via__PlayReadySpecificInformationType {
public:
    std::string* KeyId;
    std::string* LicenseAcquisitionUrl;
    std::string* LicenseAcquisitionUiUrl;
    std::string* CustomData;
    std::string* ServiceId;
    std::string* ProtectionSystemId;
};

class via__VODRMSpecificInformationType {
public:
    std::string* Data;
};

class via__ProtectionSpecificInformationType {
public:
    std::string* ProtectionSystem;
    via__PlayReadySpecificInformationType* PlayReadySpecificInformation;
    via__VODRMSpecificInformationType* VODRMSpecificInformation;
    xsd__base64Binary* Pssh;
};

class via__OutputProtectionListType {
public:
    xsd__base64Binary* Key;
    std::vector<via__ProtectionSpecificInformationType*> ProtectionSpecificInformation;
};

class _via__getProtectionInfo {
public:
    std::string ProtocolVersion;
    std::string ContentId;
    via__ProtectionListType* InputProtectionListInformation;
    bool ChangeKey;
};

class _via__getProtectionInfoResponse {
public:
    via__OutputProtectionListType* OutputProtectionListInformation;
};

//gsoap via service method-action: getProtectionInfo urn:tovrane:kms:viaccess:1/getProtectionInfo
int __via__getProtectionInfo(_via__getProtectionInfo* via__getProtectionInfo,
                             _via__getProtectionInfoResponse& via__getProtectionInfoResponse);
