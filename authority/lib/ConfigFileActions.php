<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/** Configuration files of components, made from the templates. */
final class ConfigFileActions
{
    public const TABLE = ['create' => [self::class, 'create']];

    /** Stands for "no agent": components other than agents have no agent id. */
    private const NO_AGENT = 0;

    public function __construct(private readonly Store $store)
    {
    }

    /** The configuration file of one component, with the authority's address and the agent's id filled in. */
    public function create(Request $request, Caller $caller): \Closure
    {
        $agent = $request->fields->number('agentid');
        $template = $request->fields->number('configfiletemplateid');
        $caller->requireAgent($agent);
        $url = $request->url();
        return fn (): string => $this->file($template, $agent, $url);
    }

    private function file(int $template, int $agent, string $url): string
    {
        if ($agent !== self::NO_AGENT && $this->store->agent($agent) === null) {
            throw new Refusal(Fault::NotFound, "There is no agent with the id $agent.");
        }
        $content = $this->store->template($template)['content']
            ?? throw new Refusal(Fault::NotFound, "There is no configuration file template with the id $template.");
        return Answer::data(['returnvalue' => 'S'], [[self::fillIn($content, $url, $agent)]]);
    }

    private static function fillIn(string $content, string $url, int $agent): string
    {
        return strtr($content, [
            '@SPA_URL@' => $url,
            '@AGENT_ID@' => (string) $agent,
            '@SYSTEM_LOGIN@' => $agent === self::NO_AGENT ? '' : Accounts::systemLogin($agent),
        ]);
    }
}
