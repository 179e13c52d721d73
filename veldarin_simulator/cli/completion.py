"""`veldarin-simulator completion`: print a script that completes the command line in a shell."""

from __future__ import annotations

import shlex

from veldarin_simulator.cli import common

_DESCRIPTION = """\
Print a script that completes veldarin-simulator in a shell: tools, options,
functions, files. Add one of these lines to the shell's start-up file:

  bash   source <(veldarin-simulator completion bash)
  zsh    source <(veldarin-simulator completion zsh)    (after compinit)
"""
_EXIT_STATUS = "exit status: 0 printed, 2 usage"

# The words that may follow, and whether files or folders may, by the words before the current one.
_BASH = """\
_veldarin_simulator() {{
    local current=${{COMP_WORDS[COMP_CWORD]}} previous=${{COMP_WORDS[COMP_CWORD-1]}}
    local words= files=
    if ((COMP_CWORD == 1)); then
        words={tools}
    else
        case ${{COMP_WORDS[1]}} in
{cases}
        esac
    fi
    case $previous in
        {folders}) words= files=-d ;;
        {arguments}) words= files= ;;
    esac
    COMPREPLY=($(compgen -W "$words" -- "$current"))
    if [[ $files && $current != -* ]]; then
        compopt -o filenames 2>/dev/null
        local IFS=$'\\n'
        COMPREPLY+=($(compgen $files -- "$current"))
    fi
}}
complete -F _veldarin_simulator veldarin-simulator
"""
_ZSH = """\
#compdef veldarin-simulator
_veldarin_simulator() {{
    local -a candidates
    local files=
    if ((CURRENT == 2)); then
        candidates=({tools_list})
    else
        case $words[2] in
{cases}
        esac
    fi
    case $words[CURRENT-1] in
        {folders}) candidates=() files=-/ ;;
        {arguments}) candidates=() files= ;;
    esac
    compadd -a candidates
    if [[ $files ]]; then
        _files ${{files#-f}}
    fi
}}
compdef _veldarin_simulator veldarin-simulator
"""


def create_parser() -> common.Parser:
    """Return the parser of the tool's arguments."""
    parser = common.Parser("completion", description=_DESCRIPTION, epilog=_EXIT_STATUS)
    parser.add_argument("shell", choices=("bash", "zsh"), help="the shell")
    return parser


def main(arguments: list[str]) -> int:
    """Run the tool and return its exit status."""
    from veldarin_simulator.__main__ import TOOLS, load_tool

    shell = create_parser().parse_args(arguments).shell
    cases: list[str] = []
    folders: set[str] = set()  # options whose value is a folder
    values: set[str] = set()  # options with another value
    for tool in TOOLS:
        words: list[str] = []
        files = ""
        for action in load_tool(tool).create_parser()._actions:
            words += [*action.option_strings, *(action.choices or ())]
            if action.option_strings and action.nargs != 0:
                known = folders if action.metavar in ("DIR", "FOLDER") else values
                known.update(action.option_strings)
            files = files or ("-f" if action.metavar == "FILE" else "")
        if tool in ("call", "list"):
            words += common.load_functions()
        cases.append(_case(shell, tool, words, files))
    tools = [*TOOLS, "--help", "--version"]
    print(
        (_BASH if shell == "bash" else _ZSH).format(
            tools=shlex.quote(" ".join(tools)),
            tools_list=" ".join(tools),
            cases="\n".join(cases),
            folders="|".join(sorted(folders)),
            arguments="|".join(sorted(values)),
        ),
        end="",
    )
    return 0


def _case(shell: str, tool: str, words: list[str], files: str) -> str:
    listed = " ".join(words)
    assigned = f"words={shlex.quote(listed)}" if shell == "bash" else f"candidates=({listed})"
    return f"            {tool}) {assigned} files={files} ;;"
