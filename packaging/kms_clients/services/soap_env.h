// The SOAP envelope's own parts (Header, Fault) for gSOAP's runtime. Each service's stubs live in a C++ namespace
// of their own; the runtime needs these serialisers once, in the global namespace. soapcpp2 adds the Fault by
// itself; the Header holds the one header block a client sends: Irdeto's service header, with the identity of
// the operator's account (the services that send no header leave the context's header null).
//
// The namespace name below is ours, the same as in irdeto_live_drm.h: set both to the one the operator's server
// uses if it differs.

//gsoap irdeto schema namespace: urn:tovrane:drm:irdeto:live
//gsoap irdeto schema elementForm: qualified
//gsoap irdeto schema attributeForm: unqualified

class _irdeto__LiveDrmServiceHeader {
public:
    std::string* AccountId;
    std::string* ContentId;
    std::string* UserName;
    std::string* Password;
};

struct SOAP_ENV__Header {
    _irdeto__LiveDrmServiceHeader* irdeto__LiveDrmServiceHeader;
};
