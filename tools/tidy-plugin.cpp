// A plugin for clang-tidy; tools/tidy builds and loads it. By itself clang-tidy runs every check over the declarations of all
// headers and then drops what it found in the system's headers. That takes most of its time. The plugin hides these
// declarations from the checks, with the call that clangd uses for the same purpose. It also writes down which files the
// translation unit was made from.
#include <clang/AST/ASTConsumer.h>
#include <clang/AST/ASTContext.h>
#include <clang/Basic/SourceManager.h>
#include <clang/Frontend/CompilerInstance.h>
#include <clang/Frontend/FrontendAction.h>
#include <clang/Frontend/FrontendPluginRegistry.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace
{
class COwnCodeOnly : public clang::ASTConsumer
{
public:
    void HandleTranslationUnit(clang::ASTContext& context) override
    {
        const clang::SourceManager& sources = context.getSourceManager();
        std::vector<clang::Decl*> own;
        for (clang::Decl* const declaration : context.getTranslationUnitDecl()->decls())
            if (!sources.isInSystemHeader(sources.getExpansionLoc(declaration->getLocation())))
                own.push_back(declaration);
        context.setTraversalScope(own);

        const char* const list = std::getenv("VO_TIDY_FILES");
        if (!list)
            return;
        std::ofstream files(list);
        for (auto file = sources.fileinfo_begin(); file != sources.fileinfo_end(); ++file)
            files << file->first.getName().str() << '\n';
    }
};

class CAction : public clang::PluginASTAction
{
protected:
    std::unique_ptr<clang::ASTConsumer> CreateASTConsumer(clang::CompilerInstance&, llvm::StringRef) override
    {
        return std::make_unique<COwnCodeOnly>();
    }
    bool ParseArgs(const clang::CompilerInstance&, const std::vector<std::string>&) override { return true; }
    ActionType getActionType() override { return AddBeforeMainAction; }
};

const clang::FrontendPluginRegistry::Add<CAction> g_registration("own-code-only", "hides the system's headers from the checks");
} // namespace
