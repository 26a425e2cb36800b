// The tags of ferrow's errors, with the code and message format of each.
// Tags whose exception belongs to one class (ExecCmd::Failed,
// DiskSpaceReserver::NotEnoughDiskSpace) are declared with that class.
#ifndef FERROW_ERRORS_TAGS_H_
#define FERROW_ERRORS_TAGS_H_

#include "errors/exc.h"

namespace tovel {

TOVEL_DECLARE_TAG(SshInvalidCredentials)
TOVEL_DECLARE_TAG(ConnectionRefused)
TOVEL_DECLARE_TAG(ConnectionTimedOut)
TOVEL_DECLARE_TAG(NetworkUnreachable)
TOVEL_DECLARE_TAG(HostUnreachable)
TOVEL_DECLARE_TAG(ConnectionFault)
TOVEL_DECLARE_TAG(HostNotFound)
TOVEL_DECLARE_TAG(UnableToStartSshSession)
TOVEL_DECLARE_TAG(SshAuthorizationFailed)
TOVEL_DECLARE_TAG(SshConnectionFault)
TOVEL_DECLARE_TAG(StreamWrite)
TOVEL_DECLARE_TAG(StreamRead)
TOVEL_DECLARE_TAG(UnableToSendEof)
TOVEL_DECLARE_TAG(InvalidHandle)
TOVEL_DECLARE_TAG(SudoNotFound)
TOVEL_DECLARE_TAG(SudoNotAllowed)
TOVEL_DECLARE_TAG(CantTakeFileOwnership)
TOVEL_DECLARE_TAG(UnableToOpenScoutFile)
TOVEL_DECLARE_TAG(FailedToExecuteScout)
TOVEL_DECLARE_TAG(CantCreateAgentDirectory)
TOVEL_DECLARE_TAG(CantRequestAgentStatus)
TOVEL_DECLARE_TAG(DumpStatusError)
TOVEL_DECLARE_TAG(CantRetrieveDumpFile)
TOVEL_DECLARE_TAG(FileWrite)
TOVEL_DECLARE_TAG(CantRetrieveDump)
TOVEL_DECLARE_TAG(CantRetrieveContentList)
TOVEL_DECLARE_TAG(CantRetrieveContentFile)
TOVEL_DECLARE_TAG(UnableToRemoveRemoteFile)
TOVEL_DECLARE_TAG(NotEnoughSpace)
TOVEL_DECLARE_TAG(WrongMd5Sum)
TOVEL_DECLARE_TAG(AgentNotFound)
TOVEL_DECLARE_TAG(ParseFailed)
TOVEL_DECLARE_TAG(UnableToCreateSession)
TOVEL_DECLARE_TAG(CantCreateTempDir)
TOVEL_DECLARE_TAG(CantCreateTempFile)
TOVEL_DECLARE_TAG(CantStatFS)
TOVEL_DECLARE_TAG(CantRenameFile)
TOVEL_DECLARE_TAG(NoParentNode)
TOVEL_DECLARE_TAG(NoSuchAttribute)
TOVEL_DECLARE_TAG(AssertionFailed)
TOVEL_DECLARE_TAG(tError_XmlInternal)
TOVEL_DECLARE_TAG(tError_ParseFile)
TOVEL_DECLARE_TAG(tError_SaveFile)
TOVEL_DECLARE_TAG(tError_WrongInputFile)
TOVEL_DECLARE_TAG(tError_EmptyDoc)
TOVEL_DECLARE_TAG(tError_WrongDoc)
TOVEL_DECLARE_TAG(tError_WrongContent)
TOVEL_DECLARE_TAG(tError_XPath_CantEvaluate)
TOVEL_DECLARE_TAG(tError_XPath_TypesMismatch)
TOVEL_DECLARE_TAG(tError_XslParse_CanNotParseFile)
TOVEL_DECLARE_TAG(tError_Xslt_CantApplyStylesheet)
TOVEL_DECLARE_TAG(tError_Xslt_ApplyStylesheetTerminated)
TOVEL_DECLARE_TAG(InvalidDtdFile)
TOVEL_DECLARE_TAG(InternalDtdValidationFailed)
TOVEL_DECLARE_TAG(ExternalDtdValidationFailed)
TOVEL_DECLARE_TAG(UnknownAction)

}  // namespace tovel

// These three stand outside the namespace.
TOVEL_DECLARE_TAG(OptParsingError)
TOVEL_DECLARE_TAG(NoSharedAgentsDirectory)
TOVEL_DECLARE_TAG(NoAgentDirectory)

TOVEL_EXC_TRAITS(&tovel::SshInvalidCredentials, "SshInvalidCredentials",
                 "Unable to connect to host %1%: you have specified incorrect "
                 "username or password");
TOVEL_EXC_TRAITS(&tovel::ConnectionRefused, "ConnectionRefused",
                 "No one listening on the remote address at host %1%");
TOVEL_EXC_TRAITS(&tovel::ConnectionTimedOut, "ConnectionTimedOut",
                 "Timeout while attempting connection to host %1%");
TOVEL_EXC_TRAITS(&tovel::NetworkUnreachable, "NetworkUnreachable",
                 "Specified network host %1% is unreachable");
TOVEL_EXC_TRAITS(&tovel::HostUnreachable, "HostUnreachable",
                 "No route to host %1%");
TOVEL_EXC_TRAITS(&tovel::ConnectionFault, "ConnectionFault",
                 "Unable to connect to host %1%: %2%");
TOVEL_EXC_TRAITS(&tovel::HostNotFound, "HostNotFound",
                 "Unable to resolve hostname %1%: %2%");
TOVEL_EXC_TRAITS(&tovel::UnableToStartSshSession, "UnableToStartSshSession",
                 "Unable to start SSH session: %1%");
TOVEL_EXC_TRAITS(&tovel::SshAuthorizationFailed, "SshAuthorizationFailed",
                 "No suitable username/password found");
TOVEL_EXC_TRAITS(&tovel::SshConnectionFault, "SshConnectionFault",
                 "Lost connection with the remote host");
TOVEL_EXC_TRAITS(&tovel::StreamWrite, "StreamWrite",
                 "Cannot write data to the stream");
TOVEL_EXC_TRAITS(&tovel::StreamRead, "StreamRead",
                 "Cannot read data from the stream");
TOVEL_EXC_TRAITS(&tovel::UnableToSendEof, "UnableToSendEof",
                 "Unable to send EOF to SSH channel: %1%");
TOVEL_EXC_TRAITS(&tovel::InvalidHandle, "InvalidHandle",
                 "Invalid handle passed");
TOVEL_EXC_TRAITS(
    &tovel::SudoNotFound, "SudoNotFound",
    "sudo command not found on the host %1%. You should install sudo to this "
    "host or supply root password for the migration.");
TOVEL_EXC_TRAITS(&tovel::SudoNotAllowed, "SudoNotAllowed",
                 "sudo is not allowed for user %1% on host %2%.");
TOVEL_EXC_TRAITS(&tovel::CantTakeFileOwnership, "CantTakeFileOwnership",
                 "Cannot take ownership of %1%: %2%");
TOVEL_EXC_TRAITS(&tovel::UnableToOpenScoutFile, "UnableToOpenScoutFile",
                 "Unable to open %1% for transferring to the remote host");
TOVEL_EXC_TRAITS(&tovel::FailedToExecuteScout, "FailedToExecuteScout",
                 "Failed to execute scout. \nThe return code is %1%\nThe "
                 "output on STDERR is\n%2%");
TOVEL_EXC_TRAITS(&tovel::CantCreateAgentDirectory, "CantCreateAgentDirectory",
                 "Can't create agent directory %1% on the remote host: %2%");
TOVEL_EXC_TRAITS(
    &tovel::CantRequestAgentStatus, "CantRequestAgentStatus",
    "Cannot request remote agent status using command line %1%: %2%");
TOVEL_EXC_TRAITS(&tovel::DumpStatusError, "DumpStatusError",
                 "Error during getting dumping status");
TOVEL_EXC_TRAITS(&tovel::CantRetrieveDumpFile, "CantRetrieveDumpFile",
                 "Error during dump file retrieving. \nRemote agent failed "
                 "with the following stderr messages: %1%");
TOVEL_EXC_TRAITS(&tovel::FileWrite, "FileWrite", "Error during %1% write: %2%");
TOVEL_EXC_TRAITS(&tovel::CantRetrieveDump, "CantRetrieveDump",
                 "Error during dump retrieval");
TOVEL_EXC_TRAITS(&tovel::CantRetrieveContentList, "CantRetrieveContentList",
                 "Error during content list retrieval: %1%");
TOVEL_EXC_TRAITS(&tovel::CantRetrieveContentFile, "CantRetrieveContentFile",
                 "Failed to retrieve file '%1%' from '%2%' to '%3%': %4%");
TOVEL_EXC_TRAITS(&tovel::UnableToRemoveRemoteFile, "UnableToRemoveRemoteFile",
                 "Unable to remove remote file '%1%' from '%2%': %3%");
TOVEL_EXC_TRAITS(&tovel::NotEnoughSpace, "NotEnoughSpace",
                 "Selected filesystem has only %1% free space, but %2% is "
                 "needed for operation");
TOVEL_EXC_TRAITS(&tovel::WrongMd5Sum, "WrongMd5Sum",
                 "Problem during content retrieval: downloaded %1% has MD5 sum "
                 "%2%, but it has to be %3%. Restarting download.");
TOVEL_EXC_TRAITS(
    &tovel::AgentNotFound, "AgentNotFound",
    "Agent %1% was not found or does not contain proper spec file");
TOVEL_EXC_TRAITS(&tovel::ParseFailed, "Agent::ParseFailed",
                 "Unable to parse spec file: %1%");
TOVEL_EXC_TRAITS(&tovel::UnableToCreateSession, "UnableToCreateSession",
                 "Unable to create session: %1%");
TOVEL_EXC_TRAITS(&tovel::CantCreateTempDir, "CantCreateTempDir",
                 "Can not create temporary dir with the template '%1%': %2%.");
TOVEL_EXC_TRAITS(&tovel::CantCreateTempFile, "CantCreateTempFile",
                 "Can not create temporary file with the template '%1%': %2%.");
TOVEL_EXC_TRAITS(&tovel::CantStatFS, "CantStatFS",
                 "Cannot stat filesystem containing %1%: %2%");
TOVEL_EXC_TRAITS(&tovel::CantRenameFile, "CantRenameFile",
                 "Cannot rename %1% to %2%: %3%");
TOVEL_EXC_TRAITS(&tovel::NoParentNode, "NoParentNode",
                 "No parent node on requested XML element");
TOVEL_EXC_TRAITS(&tovel::NoSuchAttribute, "NoSuchAttribute",
                 "Node %1% does not have attribute %2%");
TOVEL_EXC_TRAITS(&tovel::AssertionFailed, "AssertionFailed",
                 "Assertion failed: %1%");
TOVEL_EXC_TRAITS(&tovel::tError_XmlInternal, "tError_XmlInternal", "%1%");
TOVEL_EXC_TRAITS(&tovel::tError_ParseFile, "tError_ParseFile",
                 "The XML file %1% was not parsed successfully with the "
                 "following errors:\n%2%");
TOVEL_EXC_TRAITS(&tovel::tError_SaveFile, "tError_SaveFile",
                 "Can not save the XML document to file '%1%'");
TOVEL_EXC_TRAITS(&tovel::tError_WrongInputFile, "tError_WrongInputFile",
                 "The XML file does not exist or is not a regular file. Check "
                 "the file '%1%'");
TOVEL_EXC_TRAITS(&tovel::tError_EmptyDoc, "tError_EmptyDoc",
                 "The document is empty. Can not find root element <%1%>");
TOVEL_EXC_TRAITS(&tovel::tError_WrongDoc, "tError_WrongDoc",
                 "The document has the wrong type, root node is <%2%>, but "
                 "<%1%> was expected");
TOVEL_EXC_TRAITS(&tovel::tError_WrongContent, "tError_WrongContent", "%1%");
TOVEL_EXC_TRAITS(&tovel::tError_XPath_CantEvaluate, "tError_XPath_CantEvaluate",
                 "The XML document is invalid for XPath exception.\nCan not "
                 "evaluate result of expression '%1%'");
TOVEL_EXC_TRAITS(&tovel::tError_XPath_TypesMismatch,
                 "tError_XPath_TypesMismatch",
                 "The result of expression '%1%' is not a '%2%' type");
TOVEL_EXC_TRAITS(&tovel::tError_XslParse_CanNotParseFile,
                 "tError_XslParse_CanNotParseFile",
                 "Can not parse XSLT file '%1%'");
TOVEL_EXC_TRAITS(&tovel::tError_Xslt_CantApplyStylesheet,
                 "tError_Xslt_CantApplyStylesheet", "Can not apply stylesheet");
TOVEL_EXC_TRAITS(&tovel::tError_Xslt_ApplyStylesheetTerminated,
                 "tError_Xslt_ApplyStylesheetTerminated",
                 "The translation of XML document was terminated by XSLT "
                 "stylesheet. Check for the error reason and try again.");
TOVEL_EXC_TRAITS(&tovel::InvalidDtdFile, "InvalidDtdFile",
                 "The DTD file %1% is invalid");
TOVEL_EXC_TRAITS(&tovel::InternalDtdValidationFailed,
                 "InternalDtdValidationFailed",
                 "Failed validation of the document with its internal DTD. The "
                 "errors are: %1%");
TOVEL_EXC_TRAITS(&tovel::ExternalDtdValidationFailed,
                 "ExternalDtdValidationFailed",
                 "Failed validation of the document with external DTD %1%. The "
                 "errors are: %2%.");
TOVEL_EXC_TRAITS(&tovel::UnknownAction, "UnknownAction",
                 "Unknown action passed to the function. Probably bug in the "
                 "options parser");
TOVEL_EXC_TRAITS(&::OptParsingError, "OptParsingError",
                 "Unable to parse command line: %1%");
TOVEL_EXC_TRAITS(&::NoSharedAgentsDirectory, "NoSharedAgentsDirectory",
                 "'shared' agents directory not found");
TOVEL_EXC_TRAITS(&::NoAgentDirectory, "NoAgentDirectory",
                 "Directory for agent '%1%' does not exist");

#endif  // FERROW_ERRORS_TAGS_H_
