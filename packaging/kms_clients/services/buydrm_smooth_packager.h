// BuyDRM's KeyOS packager service (BasicHttpBinding_ISmoothPackager), as this packager uses it: one
// document/literal SOAP 1.1 operation, RequestEncryptionInfo, whose request and result are each one string
// holding an XML document of their own (KeyOSEncryptionInfoRequest and its answer). Written by hand for
// soapcpp2; the stubs are generated into the build tree.
//
// The namespace name below is ours: set it to the one the operator's server uses if it differs.

//gsoap keyos schema namespace: urn:tovrane:kms:keyos:5
//gsoap keyos schema elementForm: qualified
//gsoap keyos schema attributeForm: unqualified

//gsoap keyos service name: SmoothPackager
//gsoap keyos service type: ISmoothPackager
//gsoap keyos service style: document
//gsoap keyos service encoding: literal
//gsoap keyos service namespace: urn:tovrane:kms:keyos:5

#import "stlvector.h"

class _keyos__RequestEncryptionInfo {
public:
    std::string* requestXml;
};

class _keyos__RequestEncryptionInfoResponse {
public:
    std::string* RequestEncryptionInfoResult;
};

//gsoap keyos service method-action: RequestEncryptionInfo urn:tovrane:kms:keyos:5/ISmoothPackager/RequestEncryptionInfo
int __keyos__RequestEncryptionInfo(_keyos__RequestEncryptionInfo* keyos__RequestEncryptionInfo,
                                   _keyos__RequestEncryptionInfoResponse& keyos__RequestEncryptionInfoResponse);
