// The PlayReady packaging server, as this packager's client library uses it: one document/literal SOAP 1.1
// operation, AcquirePackagingData, asking the packaging data (key id, content key, PlayReady header) of a content
// for a key rotation and a licence duration (xsd:duration text). Written by hand for soapcpp2; the stubs are
// generated into the build tree.
//
// The namespace name below is ours: set it to the one the operator's server uses if it differs.

//gsoap prp schema namespace: urn:tovrane:kms:playready-packaging:1
//gsoap prp schema elementForm: qualified
//gsoap prp schema attributeForm: unqualified

//gsoap prp service name: Packaging
//gsoap prp service type: IPackaging
//gsoap prp service style: document
//gsoap prp service encoding: literal
//gsoap prp service namespace: urn:tovrane:kms:playready-packaging:1

#import "stlvector.h"

class xsd__base64Binary {
public:
    unsigned char* __ptr;
    int __size;
};

class prp__PackagingDataType {
public:
    std::string* KeyId;
    xsd__base64Binary* ContentKey;
    std::string* PlayReadyHeader;
};

class _prp__AcquirePackagingData {
public:
    std::string ContentId;
    std::string KeyRotationDuration;
    std::string LicenseDuration;
};

class _prp__AcquirePackagingDataResponse {
public:
    prp__PackagingDataType* PackagingDataResult;
};

//gsoap prp service method-action: AcquirePackagingData urn:tovrane:kms:playready-packaging:1/IPackaging/AcquirePackagingData
int __prp__AcquirePackagingData(_prp__AcquirePackagingData* prp__AcquirePackagingData,
                                _prp__AcquirePackagingDataResponse& prp__AcquirePackagingDataResponse);
